#include "Rules/NSData_Cipher.h"

#include <openssl/evp.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>

#include "Foundation/Exception.h"
#include "RunLoop/RunLoop.h"

namespace {

constexpr std::size_t kKeySize = 16;
constexpr std::size_t kTrailerSize = 4;
constexpr std::size_t kZeroTestSize = kCipherBlockSize - kTrailerSize;
// Seconds from 1970-01-01 to the platform's reference date 2001-01-01.
constexpr double kUnixTimeOfReferenceDate = 978307200.0;

using Key = std::array<unsigned char, kKeySize>;
using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)>;

Key keyFromPass(std::string_view pass) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digestLength = 0;
    if (EVP_Digest(pass.data(), pass.size(), digest, &digestLength, EVP_sha1(), nullptr) != 1 ||
        digestLength < kKeySize) {
        throw qv::Exception(qv::kNSInternalInconsistencyException, "SHA-1 digest failed");
    }
    Key key;
    std::memcpy(key.data(), digest, kKeySize);
    return key;
}

// AES-128-CBC over whole blocks, padding off. `length` is a multiple of the block size and `out`
// has room for `length` bytes; EVP writes no more than that when the input is whole blocks and
// padding is off. Returns false when OpenSSL refuses.
bool runCipher(bool encipher, const Key& key, const unsigned char* vector, const unsigned char* in,
               std::size_t length, unsigned char* out) {
    if (length > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
        return false;
    }
    CipherContext context(EVP_CIPHER_CTX_new(), &EVP_CIPHER_CTX_free);
    if (!context ||
        EVP_CipherInit_ex(context.get(), EVP_aes_128_cbc(), nullptr, key.data(), vector,
                          encipher ? 1 : 0) != 1 ||
        EVP_CIPHER_CTX_set_padding(context.get(), 0) != 1) {
        return false;
    }
    int written = 0;
    if (length > 0 &&
        EVP_CipherUpdate(context.get(), out, &written, in, static_cast<int>(length)) != 1) {
        return false;
    }
    int finalWritten = 0;
    if (EVP_CipherFinal_ex(context.get(), out + written, &finalWritten) != 1) {
        return false;
    }
    return static_cast<std::size_t>(written) + static_cast<std::size_t>(finalWritten) == length;
}

}  // namespace

std::size_t encipheredSizeForLength(std::size_t plainLength) {
    return kCipherBlockSize * (plainLength / kCipherBlockSize + 3);
}

unsigned int startRandom(const qv::Data& data) {
    double seconds =
        qv::RunLoop::current().currentDate().secondsSinceReferenceDate + kUnixTimeOfReferenceDate;
    auto address = reinterpret_cast<std::uintptr_t>(&data);
    return static_cast<unsigned int>(static_cast<long long>(seconds)) +
           static_cast<unsigned int>(address & 0xABCDE);
}

qv::Data dataEncryptedWithPass(const qv::Data& data, std::string_view pass) {
    const std::size_t length = data.size();
    if (length > std::numeric_limits<std::uint32_t>::max()) {
        throw qv::Exception("NSInvalidArgumentException",
                            "data too long for the rules cipher's length field");
    }
    const std::size_t paddedSize = kCipherBlockSize * (length / kCipherBlockSize + 2);

    qv::Data output(kCipherBlockSize + paddedSize);
    std::srand(startRandom(data));
    for (std::size_t i = 0; i < kCipherBlockSize; ++i) {
        output[i] = static_cast<std::uint8_t>(std::rand() & 0xFF);
    }

    qv::Data padded(paddedSize, 0);
    if (length > 0) {
        std::memcpy(padded.data(), data.data(), length);
    }
    for (std::size_t i = 0; i < kTrailerSize; ++i) {
        padded[paddedSize - 1 - i] = static_cast<std::uint8_t>(length >> (8 * i));
    }

    if (!runCipher(true, keyFromPass(pass), output.data(), padded.data(), paddedSize,
                   output.data() + kCipherBlockSize)) {
        throw qv::Exception(qv::kNSInternalInconsistencyException, "AES encipherment failed");
    }
    return output;
}

std::optional<qv::Data> dataDecryptedWithPass(const qv::Data& data, std::string_view pass) {
    const std::size_t length = data.size();
    // The vector and at least the trailer block, in whole blocks; anything else would make the
    // cipher or the trailer read outside the buffers.
    if (length < 2 * kCipherBlockSize || length % kCipherBlockSize != 0) {
        return std::nullopt;
    }
    const std::size_t cipherSize = length - kCipherBlockSize;
    qv::Data plain(cipherSize);
    if (!runCipher(false, keyFromPass(pass), data.data(), data.data() + kCipherBlockSize,
                   cipherSize, plain.data())) {
        return std::nullopt;
    }

    const std::uint8_t* lastBlock = plain.data() + cipherSize - kCipherBlockSize;
    for (std::size_t i = 0; i < kZeroTestSize; ++i) {
        if (lastBlock[i] != 0) {
            return std::nullopt;
        }
    }
    std::uint32_t plainLength = 0;
    for (std::size_t i = kZeroTestSize; i < kCipherBlockSize; ++i) {
        plainLength = (plainLength << 8) | lastBlock[i];
    }
    if (plainLength > cipherSize - kCipherBlockSize) {
        return std::nullopt;
    }
    plain.resize(plainLength);
    return plain;
}
