#include <gtest/gtest.h>

#include <string>

#include "Rules/Decryptor.h"
#include "Rules/NSData_Cipher.h"

namespace {

qv::Data bytes(const std::string& text) {
    return qv::Data(text.begin(), text.end());
}

const char* const kXMLRules =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\"><array><dict><key>QuorvelID</key><integer>5059</integer>"
    "<key>Allowed</key><integer>0</integer></dict></array></plist>\n";

TEST(DecryptorTests, EncipheredAndPlainRulesFilesGiveTheirPropertyList) {
    auto decryptor = Decryptor::decryptor();
    qv::Value expected(qv::Array{qv::Dictionary{{"QuorvelID", 5059}, {"Allowed", 0}}});

    qv::Data enciphered = dataEncryptedWithPass(bytes(kXMLRules), "FrimbleJonks");
    EXPECT_EQ(decryptor->decryptDataIfNeededAndGetPropList(enciphered, "FrimbleJonks"), expected);
    EXPECT_EQ(decryptor->decryptDataIfNeededAndGetPropList(bytes(kXMLRules), "FrimbleJonks"),
              expected);
    EXPECT_EQ(decryptor->decryptDataIfNeededAndGetPropList(
                  bytes("( { QuorvelID = 5059; Allowed = 0; } )"), "FrimbleJonks"),
              qv::Value(qv::Array{qv::Dictionary{{"QuorvelID", "5059"}, {"Allowed", "0"}}}));
    // An old-style file enciphered as well.
    qv::Data ascii = dataEncryptedWithPass(bytes("(a, b)"), "FrimbleJonks");
    EXPECT_EQ(decryptor->decryptDataIfNeededAndGetPropList(ascii, "FrimbleJonks"),
              qv::Value(qv::Array{"a", "b"}));
}

TEST(DecryptorTests, EveryFailureEndsInNil) {
    auto decryptor = Decryptor::decryptor();
    qv::Data enciphered = dataEncryptedWithPass(bytes(kXMLRules), "FrimbleJonks");
    // The wrong pass phrase leaves the enciphered bytes, which are no text property list.
    EXPECT_TRUE(decryptor->decryptDataIfNeededAndGetPropList(enciphered, "Frimble").isNil());
    EXPECT_TRUE(decryptor->decryptDataIfNeededAndGetPropList(qv::Data(), "FrimbleJonks").isNil());

    // Deciphered bytes that are not a property list are not read again as plain text.
    qv::Data notAList = dataEncryptedWithPass(bytes("<plist><array>"), "FrimbleJonks");
    EXPECT_TRUE(decryptor->decryptDataIfNeededAndGetPropList(notAList, "FrimbleJonks").isNil());

    EXPECT_TRUE(decryptor->tryToConvertToPlist(bytes("<plist><dict><key>a</key></plist>")).isNil());
    EXPECT_TRUE(decryptor->tryToConvertToPlist(bytes("( \"caf\xe9\" )")).isNil());  // Latin-1
    EXPECT_TRUE(decryptor->tryToConvertToPlist(bytes("bplist00\xd0\x08")).isNil());
}

}  // namespace
