// The enciphered layout checked against the openssl command line, which knows nothing of ours:
// it must read our files and we must read files made with it.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "Rules/NSData_Cipher.h"
#include "RulesTestSupport.h"

namespace {

// The first 16 bytes of SHA-1("FrimbleJonks") (b0a0d262...c67f, from sha1sum).
const char* const kFrimbleJonksKeyHex = "b0a0d26213c2e419c9f83f2ce91d322a";

// The padded plaintext written out by hand: data, zeros, big-endian length in the last four.
qv::Data paddedPlaintext(const qv::Data& plain) {
    qv::Data padded(16 * (plain.size() / 16 + 2), 0);
    std::copy(plain.begin(), plain.end(), padded.begin());
    const auto n = static_cast<std::uint32_t>(plain.size());
    padded[padded.size() - 4] = static_cast<std::uint8_t>(n >> 24);
    padded[padded.size() - 3] = static_cast<std::uint8_t>(n >> 16);
    padded[padded.size() - 2] = static_cast<std::uint8_t>(n >> 8);
    padded[padded.size() - 1] = static_cast<std::uint8_t>(n);
    return padded;
}

class CipherOpenSSLTests : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_FALSE(rulestest::opensslPath().empty())
            << "the openssl command line is missing (package openssl, scripts/install-deps.sh)";
    }
    rulestest::TemporaryDirectory dir;
};

TEST_F(CipherOpenSSLTests, OpenSSLReadsOurFilesAndWeReadItsFiles) {
    for (std::size_t length : {0, 1, 15, 16, 17, 1000}) {
        qv::Data plain(length);
        for (std::size_t i = 0; i < length; ++i) {
            plain[i] = static_cast<std::uint8_t>('a' + i % 26);
        }
        // Ours, after the vector, deciphers with openssl to the padded layout.
        qv::Data ours = dataEncryptedWithPass(plain, "FrimbleJonks");
        rulestest::writeFile(dir.file("ours.bin"), qv::Data(ours.begin() + 16, ours.end()));
        qv::TaskResult result =
            rulestest::runOpenSSLCipher(false, kFrimbleJonksKeyHex, rulestest::hex(ours.data(), 16),
                                        dir.file("ours.bin"), dir.file("padded.bin"));
        ASSERT_EQ(result.exitStatus, 0) << result.error;
        EXPECT_EQ(rulestest::readFile(dir.file("padded.bin")), paddedPlaintext(plain)) << length;

        // The layout enciphered by openssl, behind a vector, deciphers with ours.
        rulestest::writeFile(dir.file("padded.bin"), paddedPlaintext(plain));
        result = rulestest::runOpenSSLCipher(true, kFrimbleJonksKeyHex,
                                             "000102030405060708090a0b0c0d0e0f",
                                             dir.file("padded.bin"), dir.file("theirs.bin"));
        ASSERT_EQ(result.exitStatus, 0) << result.error;
        qv::Data theirs = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
        qv::Data body = rulestest::readFile(dir.file("theirs.bin"));
        theirs.insert(theirs.end(), body.begin(), body.end());
        EXPECT_EQ(dataDecryptedWithPass(theirs, "FrimbleJonks"), plain) << length;
        EXPECT_FALSE(dataDecryptedWithPass(theirs, "frimbleJonks").has_value());
    }
}

}  // namespace
