// The rules-file cipher, as additions to the byte buffer (qv::Data).
//
// Enciphered layout: 16 bytes of initialisation vector in clear, then the AES-128-CBC encipherment
// (no padding scheme) of the plain bytes followed by zero bytes and, in the last four bytes, the
// plain length as a big-endian 32-bit number. The padded size is the data rounded down to whole
// blocks plus two blocks, so the last block is always twelve zero bytes and the length: those
// zeros are the only test of a right pass phrase. The key is the first 16 bytes of the SHA-1
// digest of the pass phrase's UTF-8 bytes.
//
// Any thread; the vector comes from the C library's shared generator (srand/rand), which these
// functions reseed.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

#include "Foundation/Value.h"

inline constexpr std::size_t kCipherBlockSize = 16;

// The size of an enciphered file for `plainLength` bytes of data: 16 * (plainLength / 16 + 3).
std::size_t encipheredSizeForLength(std::size_t plainLength);

// A new buffer in the enciphered layout. Data of 4 GiB or more cannot be described by the
// trailer and raises NSInvalidArgumentException.
qv::Data dataEncryptedWithPass(const qv::Data& data, std::string_view pass);

// The plain bytes, or nothing when the input is not an enciphered file of this pass phrase:
// shorter than the vector and one block, not whole blocks, a failed zero test, or a trailer
// length that does not fit the deciphered bytes.
std::optional<qv::Data> dataDecryptedWithPass(const qv::Data& data, std::string_view pass);

// The seed of the vector: the current time in seconds plus (the buffer's address AND 0xABCDE).
unsigned int startRandom(const qv::Data& data);
