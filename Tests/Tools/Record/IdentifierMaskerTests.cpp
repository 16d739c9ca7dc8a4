// Masking keeps each identifier's form (length, digits, check digit, separators) and is one-to-one
// and stable within a recording, and leaves alone what only looks like numbers.
#include <gtest/gtest.h>

#include <string>

#include "qvdevice/IdentifierMasker.h"

namespace {

using qvdevice::IdentifierMasker;

bool sameForm(const std::string& a, const std::string& b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        bool digitA = std::isdigit(static_cast<unsigned char>(a[i])) != 0;
        bool digitB = std::isdigit(static_cast<unsigned char>(b[i])) != 0;
        bool alphaA = std::isalpha(static_cast<unsigned char>(a[i])) != 0;
        if (digitA != digitB || (!digitA && !alphaA && a[i] != b[i])) {
            return false;
        }
    }
    return true;
}

TEST(IdentifierMasker, AnImeiStaysAFifteenDigitImeiWithItsTypeCodeAndAValidCheckDigit) {
    IdentifierMasker masker(42);
    const std::string imei = "353142030000007";  // Luhn-valid
    ASSERT_TRUE(IdentifierMasker::luhnValid(imei));
    std::string masked = masker.maskText(imei);
    EXPECT_NE(masked, imei);
    EXPECT_EQ(masked.size(), 15u);
    EXPECT_TRUE(IdentifierMasker::luhnValid(masked)) << masked;
    EXPECT_EQ(masked.substr(0, 8), imei.substr(0, 8));
    // The same value masked the same way wherever it occurs.
    EXPECT_EQ(masker.maskWhole(imei), masked);
    EXPECT_EQ(masker.maskText("IMEI: " + imei), "IMEI: " + masked);
    qv::Value info{qv::Dictionary{}};
    info.set("IMEI", imei);
    EXPECT_EQ(*masker.maskValue(info)["IMEI"].asString(), masked);
    // Another IMEI gets another mask; another recording (key) masks differently.
    std::string second = masker.maskText("353142030000015");
    EXPECT_NE(second, masked);
    EXPECT_TRUE(IdentifierMasker::luhnValid(second));
    EXPECT_NE(IdentifierMasker(43).maskText(imei), masked);
    // An IMEI without a valid check digit (as made-up ones often are) still becomes a valid IMEI
    // where it is known to be one, the same from its property and from its AT answer line.
    IdentifierMasker other(44);
    std::string madeUp = other.maskImei("353142030000001");
    EXPECT_TRUE(IdentifierMasker::luhnValid(madeUp)) << madeUp;
    EXPECT_EQ(madeUp.substr(0, 8), "35314203");
    EXPECT_EQ(other.maskText("IMEI: 353142030000001"), "IMEI: " + madeUp);
    // Many IMEIs with the same type code never share a mask.
    std::set<std::string> masks;
    for (int serial = 0; serial < 500; ++serial) {
        std::string body = "35314203" + std::to_string(100000 + serial);
        body += '0';
        // Make it Luhn-valid by trying every check digit.
        for (char check = '0'; check <= '9'; ++check) {
            body.back() = check;
            if (IdentifierMasker::luhnValid(body)) {
                break;
            }
        }
        masks.insert(masker.maskText(body));
    }
    EXPECT_EQ(masks.size(), 500u);
}

TEST(IdentifierMasker, MasksSimAndLineNumbersInAnswersButNotVersionsOrSignalValues) {
    IdentifierMasker masker(7);
    struct Case {
        std::string line;
        bool changes;
    };
    for (const Case& c : std::vector<Case>{{"^ICCID: 89490200001234567890", true},
                                           {"89490200001234567890", true},
                                           {"262021234567890", true},  // IMSI
                                           {"+CNUM: \"\",\"+491701234567\",145", true},
                                           {"+CNUM: \"Own\",\"01701234567\",129", true},
                                           {"+CLIP: \"+4917012345678\",145", true},
                                           {"HWaddr 00:1e:10:1f:a0:b1 up", true},
                                           {"11.126.16.04.284", false},
                                           {"+CSQ: 17,99", false},
                                           {"^BOOT:24373069,0,0,0,6", false},
                                           {"+COPS: 0,0,\"Vodafone.de\",2", false},
                                           {"E1750", false},
                                           {"Model: K3765-H", false},
                                           {"OK", false}}) {
        std::string masked = masker.maskText(c.line);
        EXPECT_EQ(masked != c.line, c.changes) << c.line << " -> " << masked;
        EXPECT_TRUE(sameForm(masked, c.line)) << c.line << " -> " << masked;
    }
    // The ICCID keeps "89", its country and issuer, and a valid check digit when it had one.
    const std::string iccid = "8949020000123456789";
    std::string check = iccid;
    for (char digit = '0'; digit <= '9'; ++digit) {
        if (IdentifierMasker::luhnValid(check = iccid + digit)) {
            break;
        }
    }
    std::string masked = masker.maskText(check);
    EXPECT_EQ(masked.substr(0, 6), check.substr(0, 6));
    EXPECT_TRUE(IdentifierMasker::luhnValid(masked));
}

TEST(IdentifierMasker, PropertiesNamedAsIdentifiersAreMaskedWholeAndWalkedInDepth) {
    IdentifierMasker masker(1);
    qv::Value properties{qv::Dictionary{}};
    properties.set("USB Serial Number", "ABC123xyz");
    properties.set("USB Product Name", "HUAWEI Mobile");
    properties.set("idVendor", 4817);
    qv::Value nested{qv::Dictionary{}};
    nested.set("ID_SERIAL_SHORT", "0123456789ABCDEF");
    nested.set("IOMACAddress", qv::Value(qv::Data{0x00, 0x1e, 0x10, 0x1f, 0xa0, 0xb1}));
    properties.set("udev", nested);
    qv::Value masked = masker.maskValue(properties);

    std::string serial = *masked["USB Serial Number"].asString();
    EXPECT_NE(serial, "ABC123xyz");
    EXPECT_TRUE(sameForm(serial, "ABC123xyz")) << serial;
    EXPECT_TRUE(std::isupper(static_cast<unsigned char>(serial[0])));
    EXPECT_TRUE(std::islower(static_cast<unsigned char>(serial[6])));
    EXPECT_EQ(*masked["USB Product Name"].asString(), "HUAWEI Mobile");
    EXPECT_EQ(masked["idVendor"].integerValue(), 4817);
    std::string hexSerial = *masked["udev"]["ID_SERIAL_SHORT"].asString();
    EXPECT_NE(hexSerial, "0123456789ABCDEF");
    EXPECT_EQ(hexSerial.find_first_not_of("0123456789ABCDEF"), std::string::npos) << hexSerial;
    const qv::Data* mac = masked["udev"]["IOMACAddress"].asData();
    ASSERT_NE(mac, nullptr);
    EXPECT_EQ(mac->size(), 6u);
    EXPECT_NE(*mac, (qv::Data{0x00, 0x1e, 0x10, 0x1f, 0xa0, 0xb1}));
    EXPECT_EQ(masker.maskWhole("ABC123xyz"), serial);

    // Depth is bounded: a deeper value comes back unmasked rather than recursing without end.
    qv::Value deep("353142030000001");
    for (int i = 0; i < IdentifierMasker::kMaxDepth + 4; ++i) {
        qv::Array wrap{deep};
        deep = qv::Value(std::move(wrap));
    }
    EXPECT_EQ(masker.maskValue(deep).count(), 1u);
}

}  // namespace
