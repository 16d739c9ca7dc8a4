#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "QVGsmKit/AtAnswerValues.h"

namespace {

using qv::AtCharset;

TEST(AtAnswerValues, ImeiIsFourteenToSixteenDigitsAfterLabelsAndTails) {
    std::string why;
    EXPECT_EQ(qv::checkedImei("353142030000001", &why), "353142030000001");
    // Option's ",serial" tail (ModemManager option plugin) and quotes (Motorola, devid table).
    EXPECT_EQ(qv::checkedImei("357516032005989,TR19A8P11R", &why), "357516032005989");
    EXPECT_EQ(qv::checkedImei("\"626936926396996\"", &why), "626936926396996");
    EXPECT_EQ(qv::checkedImei("35314203000000", &why), "35314203000000");
    EXPECT_EQ(qv::checkedImei("3531420300000012", &why), "3531420300000012");
    for (const char* bad : {"", "1234567890123", "35314203000000123", "0x3B0C4B98", "12de4fa6",
                            "ERROR", "3531420300000O1", ",353142030000001"}) {
        why.clear();
        EXPECT_FALSE(qv::checkedImei(bad, &why)) << bad;
        EXPECT_FALSE(why.empty()) << bad;
    }
}

TEST(AtAnswerValues, IccidFormsSwappedDigitsAndFiller) {
    std::string why;
    EXPECT_EQ(qv::checkedIccid("89490200001234567890", &why), "89490200001234567890");
    // Huawei's ^ICCID? answer (swapped, quoted) and a 19-digit ICCID with its F filler.
    EXPECT_EQ(qv::checkedIccid("\"98942000002143658709\"", &why), "89490200001234567890");
    EXPECT_EQ(qv::checkedIccid("983310214365870921F3", &why), "8933011234567890123");
    EXPECT_EQ(qv::checkedIccid("8933011234567890123F", &why), "8933011234567890123");
    EXPECT_EQ(qv::checkedIccid("8933011234567890123", &why), "8933011234567890123");
    // Operators that use A-F past the sixth digit (ModemManager mm_3gpp_parse_iccid).
    EXPECT_EQ(qv::checkedIccid("898600a0091234567890", &why), "898600A0091234567890");
    for (const char* bad : {"", "9810xxxxxxxxxxxxxxxx", "1234567890123456789", "894902000012345678",
                            "8949020000123456789012", "89A90200001234567890",
                            "98942000002143658F09", "ERROR", "89490200001234 67890"}) {
        EXPECT_FALSE(qv::checkedIccid(bad, &why)) << bad;
    }
}

TEST(AtAnswerValues, IccidFromTheSimFileThroughCrsm) {
    std::string why;
    EXPECT_EQ(qv::iccidFromCrsmLine("+CRSM: 144,0,\"98942000002143658709\"", &why),
              "89490200001234567890");
    EXPECT_EQ(qv::iccidFromCrsmLine("+CRSM: 144, 0, 983310214365870921F3", &why),
              "8933011234567890123");
    EXPECT_EQ(qv::iccidFromCrsmLine("+CRSM: 145,3,\"98942000002143658709\"", &why),
              "89490200001234567890");
    struct Bad {
        const char* line;
        const char* reason;
    } bad[] = {
        {"+CRSM: 106,130,\"\"", "refused"},  // 6A82: file not found
        {"+CRSM: 144,0,\"0054485552415941FFFFFFFFFFFFFFFFFF\"", "10 bytes"},
        {"+CRSM: 144,0,\"89490200001234567890\"", "does not hold"},
        {"+CRSM: 144", "status words"},
        {"+CRSM: x,0,\"98942000002143658709\"", "status words"},
        {"+CCID: 89490200001234567890", "not a +CRSM"},
    };
    for (const Bad& b : bad) {
        why.clear();
        EXPECT_FALSE(qv::iccidFromCrsmLine(b.line, &why)) << b.line;
        EXPECT_NE(why.find(b.reason), std::string::npos) << b.line << ": " << why;
    }
}

TEST(AtAnswerValues, Ucs2OperatorNamesDecodedOnlyWhereTheyAreUcs2) {
    std::string why;
    // ModemManager src/tests/test-modem-helpers.c, normalize_operator_tests.
    EXPECT_EQ(qv::operatorName("0056006500720069007A006F006E", AtCharset::Ucs2, &why), "Verizon");
    EXPECT_EQ(qv::operatorName("003300310031003400380030", AtCharset::Ucs2, &why), "311480");
    EXPECT_EQ(qv::operatorName("Verizon", AtCharset::Ucs2, &why), "Verizon");
    EXPECT_EQ(qv::operatorName("311480", AtCharset::Ucs2, &why), "311480");
    EXPECT_EQ(qv::operatorName("0056006500720069007A006F006E", AtCharset::Unknown, &why),
              "Verizon");
    EXPECT_EQ(qv::operatorName("0056006500720069007A006F006E", AtCharset::Ascii, &why),
              "0056006500720069007A006F006E");
    // Beyond Latin-1 only when the modem said UCS2; "CAFE" is a name under an unknown set.
    EXPECT_EQ(qv::operatorName("4E2D56FD79FB52A8", AtCharset::Ucs2, &why),
              "\xE4\xB8\xAD\xE5\x9B\xBD\xE7\xA7\xBB\xE5\x8A\xA8");
    EXPECT_EQ(qv::operatorName("CAFE", AtCharset::Unknown, &why), "CAFE");
    EXPECT_EQ(qv::operatorName("D83DDE00", AtCharset::Ucs2, &why), "\xF0\x9F\x98\x80");
    EXPECT_EQ(qv::operatorName("D83D0041", AtCharset::Ucs2, &why), "D83D0041");  // broken pair
    EXPECT_EQ(qv::operatorName("00070041", AtCharset::Ucs2, &why), "00070041");  // a control
    for (const char* none : {"", "\"\"", "Unknown", "unknown", "0055006E006B006E006F0077006E"}) {
        why.clear();
        EXPECT_FALSE(qv::operatorName(none, AtCharset::Ucs2, &why)) << none;
        EXPECT_FALSE(why.empty());
    }
}

TEST(AtAnswerValues, SignalNinetyNineIsUnknown) {
    std::string why;
    EXPECT_EQ(qv::signalQuality(0, &why), 0);
    EXPECT_EQ(qv::signalQuality(31, &why), 31);
    EXPECT_FALSE(qv::signalQuality(99, &why));
    EXPECT_NE(why.find("not known"), std::string::npos);
    EXPECT_FALSE(qv::signalQuality(32, &why));
    EXPECT_FALSE(qv::signalQuality(-1, &why));
    EXPECT_FALSE(qv::signalQuality(199, &why));
}

}  // namespace
