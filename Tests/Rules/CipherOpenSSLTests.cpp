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

qv::Data textBytes(const std::string& text) {
    return qv::Data(text.begin(), text.end());
}

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

TEST_F(CipherOpenSSLTests, OpenSSLReadsOurFiles) {
    for (const std::string& text :
         {std::string(), std::string("<array/>"), std::string(16, 'x'),
          std::string("<?xml version=\"1.0\"?><plist><array><dict><key>QuorvelID</key>"
                      "<integer>5059</integer></dict></array></plist>")}) {
        qv::Data plain = textBytes(text);
        qv::Data file = dataEncryptedWithPass(plain, "FrimbleJonks");
        rulestest::writeFile(dir.file("cipher.bin"), qv::Data(file.begin() + 16, file.end()));

        qv::TaskResult result =
            rulestest::runOpenSSLCipher(false, kFrimbleJonksKeyHex, rulestest::hex(file.data(), 16),
                                        dir.file("cipher.bin"), dir.file("plain.bin"));
        ASSERT_EQ(result.exitStatus, 0) << result.error;
        EXPECT_EQ(rulestest::readFile(dir.file("plain.bin")), paddedPlaintext(plain))
            << "length " << text.size();
    }
}

TEST_F(CipherOpenSSLTests, WeReadOpenSSLFiles) {
    const std::string vectorHex = "000102030405060708090a0b0c0d0e0f";
    for (std::size_t length : {0, 1, 15, 16, 17, 1000}) {
        qv::Data plain(length);
        for (std::size_t i = 0; i < length; ++i) {
            plain[i] = static_cast<std::uint8_t>('a' + i % 26);
        }
        rulestest::writeFile(dir.file("padded.bin"), paddedPlaintext(plain));
        qv::TaskResult result = rulestest::runOpenSSLCipher(
            true, kFrimbleJonksKeyHex, vectorHex, dir.file("padded.bin"), dir.file("cipher.bin"));
        ASSERT_EQ(result.exitStatus, 0) << result.error;

        qv::Data file = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
        qv::Data body = rulestest::readFile(dir.file("cipher.bin"));
        file.insert(file.end(), body.begin(), body.end());
        EXPECT_EQ(file.size(), encipheredSizeForLength(length));

        auto back = dataDecryptedWithPass(file, "FrimbleJonks");
        ASSERT_TRUE(back.has_value()) << "length " << length;
        EXPECT_EQ(*back, plain);
        EXPECT_FALSE(dataDecryptedWithPass(file, "frimbleJonks").has_value());
    }
}

}  // namespace
