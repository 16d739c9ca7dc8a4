// The rules-file reader on any bytes: the trial decipherment and the property-list parse must
// never crash, read outside a buffer or answer a length the file cannot hold; and whatever is
// enciphered must decipher to the same bytes, also after the trailer was tampered with.
//
// The first byte chooses the case, the rest is the input:
//   0: the bytes as a rules file (deciphered when they are enciphered, then parsed);
//   1: the bytes as plain data, enciphered and read back;
//   2: as 1, then the first four bytes of the input overwrite the ciphertext that garbles the
//      trailer's length, so the deciphered length may lie.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "Rules/Decryptor.h"
#include "Rules/NSData_Cipher.h"

namespace {

constexpr const char* kPass = "FrimbleJonks";

void readAsRulesFile(const qv::Data& bytes) {
    qv::Value rules = Decryptor::decryptor()->decryptDataIfNeededAndGetPropList(bytes, kPass);
    (void)rules.description();
}

void encipherAndReadBack(const qv::Data& plain) {
    qv::Data file = dataEncryptedWithPass(plain, kPass);
    if (file.size() != encipheredSizeForLength(plain.size())) {
        std::abort();
    }
    auto back = dataDecryptedWithPass(file, kPass);
    if (!back || *back != plain) {
        std::abort();
    }
    readAsRulesFile(file);
}

void tamperWithTrailer(const qv::Data& input) {
    if (input.size() < 4) {
        return;
    }
    qv::Data plain(input.begin() + 4, input.end());
    qv::Data file = dataEncryptedWithPass(plain, kPass);
    std::memcpy(file.data() + file.size() - kCipherBlockSize - 4, input.data(), 4);
    auto back = dataDecryptedWithPass(file, kPass);
    // Whatever the trailer now says, an accepted length fits the deciphered bytes.
    if (back && back->size() > file.size() - 2 * kCipherBlockSize) {
        std::abort();
    }
    readAsRulesFile(file);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    qv::Data input(data + 1, data + size);
    switch (data[0] % 3) {
        case 0:
            readAsRulesFile(input);
            break;
        case 1:
            encipherAndReadBack(input);
            break;
        default:
            tamperWithTrailer(input);
            break;
    }
    return 0;
}
