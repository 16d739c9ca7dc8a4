#include <gtest/gtest.h>

#include <string>

#include "QVGsmKit/AtAnswerFields.h"
#include "QVGsmKit/AtResponseReader.h"
#include "QVGsmKit/ModemModelTable.h"
#include "QVGsmKit/SerialGsmBackend.h"
#include "QVGsmKit/UucpPortLock.h"

namespace {

using qv::AtFinal;
using qv::AtResponseReader;

AtResponseReader readAll(const std::string& command, const std::string& bytes) {
    AtResponseReader reader;
    reader.begin(command);
    reader.feed(bytes.data(), bytes.size());
    return reader;
}

TEST(AtResponseReader, EchoOnOrOffAndEveryLineEnd) {
    for (std::string end : {"\r\n", "\r", "\n"}) {
        AtResponseReader echoed =
            readAll("AT+CGMM", "AT+CGMM\r" + end + "E1750" + end + end + "OK" + end);
        ASSERT_TRUE(echoed.complete());
        EXPECT_TRUE(echoed.response().ok());
        ASSERT_EQ(echoed.response().lines, std::vector<std::string>{"E1750"});

        AtResponseReader plain = readAll("AT+CGMM", end + "E1750" + end + end + "OK" + end);
        EXPECT_EQ(plain.response().lines, std::vector<std::string>{"E1750"});
    }
    // Byte by byte, as a slow line delivers it.
    AtResponseReader reader;
    reader.begin("at+cgmi");
    // The final result is complete at its line end.
    std::string bytes = "AT+CGMI\r\r\nhuawei\r\n\r\nOK\r";
    for (std::size_t i = 0; i + 1 < bytes.size(); ++i) {
        EXPECT_FALSE(reader.feed(&bytes[i], 1)) << i;
    }
    EXPECT_TRUE(reader.feed(&bytes.back(), 1));
    EXPECT_EQ(reader.response().lines, std::vector<std::string>{"huawei"});
}

TEST(AtResponseReader, UnsolicitedLinesAreDroppedButTheAnswersOwnReportStays) {
    AtResponseReader reader =
        readAll("AT+CREG?",
                "\r\n^BOOT:24373069,0,0,0,6\r\n\r\nRING\r\n\r\n^RSSI:17\r\n\r\n+CGREG: 1\r\n"
                "\r\n+CREG: 0,1\r\n\r\n^MODE:5,4\r\n\r\nOK\r\n");
    EXPECT_EQ(reader.response().lines, std::vector<std::string>{"+CREG: 0,1"});
    EXPECT_EQ(reader.droppedLines(), 5u);
    // A plain answer is never mistaken for noise, and an echo only counts before the answer.
    AtResponseReader cgsn = readAll("AT+CGSN", "\r\n353142030000001\r\nAT+CGSN\r\nOK\r\n");
    EXPECT_EQ(cgsn.response().lines, (std::vector<std::string>{"353142030000001", "AT+CGSN"}));
    // Compound commands own every name they ask for.
    EXPECT_FALSE(AtResponseReader::isUnsolicited("+CGMM: E1750", "AT+CGMI;+CGMM"));
    EXPECT_TRUE(AtResponseReader::isUnsolicited("+CMTI: \"SM\",1", "AT+CGMI;+CGMM"));
}

TEST(AtResponseReader, FinalResults) {
    struct Case {
        const char* line;
        AtFinal final;
    } cases[] = {
        {"OK", AtFinal::Ok},
        {"ERROR", AtFinal::Error},
        {"COMMAND NOT SUPPORT", AtFinal::Error},
        {"+CME ERROR: 11", AtFinal::CmeError},
        {"+CME ERROR: SIM PIN required", AtFinal::CmeError},
        {"+CMS ERROR: 500", AtFinal::CmsError},
        {"NO CARRIER", AtFinal::NoCarrier},
        {"BUSY", AtFinal::Busy},
        {"NO ANSWER", AtFinal::NoAnswer},
        {"NO DIALTONE", AtFinal::NoDialtone},
        {"CONNECT", AtFinal::Connect},
        {"CONNECT 7200000", AtFinal::Connect},
        {"OKAY", AtFinal::None},
        {"+CMEE: 1", AtFinal::None},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(AtResponseReader::finalResultOf(c.line), c.final) << c.line;
    }
    AtResponseReader refused = readAll("AT+CIMI", "\r\n+CME ERROR: 11\r\n");
    EXPECT_EQ(refused.response().final, AtFinal::CmeError);
    EXPECT_EQ(refused.response().finalLine, "+CME ERROR: 11");
    EXPECT_FALSE(refused.response().ok());
}

TEST(AtResponseReader, GarbageNulsAndEndlessLinesAreBounded) {
    std::string noise("\x1b[2J\x00\xff\xfe\x07\r\n", 10);
    AtResponseReader reader =
        readAll("AT+CGMM", noise + std::string("\0\0", 2) + "AT+CGMM\r\r\nE1750\r\nOK\r\n");
    EXPECT_EQ(reader.response().lines, std::vector<std::string>{"E1750"});

    // Bytes above ASCII that UTF-8 uses read as '?'.
    AtResponseReader accents =
        readAll("AT+COPS?", "\r\n+COPS: 0,0,\"T\xc3\xa9l\xc3\xa9\"\r\nOK\r\n");
    EXPECT_EQ(accents.response().lines, std::vector<std::string>{"+COPS: 0,0,\"T??l??\""});

    std::string endless(100000, 'A');
    AtResponseReader longLine = readAll("ATI", "\r\n" + endless + "\r\nOK\r\n");
    ASSERT_EQ(longLine.response().lines.size(), 1u);
    EXPECT_EQ(longLine.response().lines[0].size(), AtResponseReader::kMaxLineLength);

    std::string many;
    for (int i = 0; i < 500; ++i) {
        many += "line " + std::to_string(i) + "\r\n";
    }
    AtResponseReader manyLines = readAll("AT+CPBR=1,500", many + "OK\r\n");
    EXPECT_TRUE(manyLines.complete());
    EXPECT_EQ(manyLines.response().lines.size(), AtResponseReader::kMaxLines);

    // Nothing after the final result belongs to this answer.
    AtResponseReader after = readAll("AT", "\r\nOK\r\nstray\r\nERROR\r\n");
    EXPECT_EQ(after.response().final, AtFinal::Ok);
    EXPECT_TRUE(after.response().lines.empty());
}

TEST(AtResponseReader, FirstValueDropsLabelsAndQuotes) {
    auto value = [](const std::string& line) {
        qv::AtResponse response;
        response.lines.push_back(line);
        return response.firstValue();
    };
    EXPECT_EQ(value("+CGMR: 11.126.16.04.284"), "11.126.16.04.284");
    EXPECT_EQ(value("^ICCID: 89490200001234567890"), "89490200001234567890");
    EXPECT_EQ(value("ICCID: 8933"), "8933");
    EXPECT_EQ(value("+CCID: \"8901\""), "8901");
    EXPECT_EQ(value("K1_0_2_8AP C:/WS/FW"), "K1_0_2_8AP C:/WS/FW");
    EXPECT_EQ(value("huawei"), "huawei");
    EXPECT_EQ(qv::AtResponse().firstValue(), "");
}

TEST(AtAnswerFields, SplitsAtCommasOutsideQuotes) {
    EXPECT_EQ(qv::atFields("+COPS: 0,0,\"Vodafone, DE\",2"),
              (std::vector<std::string>{"0", "0", "Vodafone, DE", "2"}));
    EXPECT_EQ(qv::atFields("+CSQ: 17,99"), (std::vector<std::string>{"17", "99"}));
    auto fields = qv::atFields("+CSQ: x,-1,99999999999");
    EXPECT_FALSE(qv::atIntegerField(fields, 0));
    EXPECT_FALSE(qv::atIntegerField(fields, 1));
    EXPECT_FALSE(qv::atIntegerField(fields, 2));
    EXPECT_FALSE(qv::atIntegerField(fields, 7));
    EXPECT_EQ(qv::radioAccessTechnologyName(7), "LTE");
    EXPECT_EQ(qv::radioAccessTechnologyName(8), "");
}

TEST(ModemModelTable, MatchesMakerWithinTheAnswerAndModelExactly) {
    std::string error;
    auto table = qv::ModemModelTable::fromJsonText(
        R"({"models": [{"maker": "Huawei", "model": "E1750", "quorvelID": 320},
                       {"maker": "zte", "model": "MF626", "quorvelID": 15401}]})",
        &error);
    ASSERT_TRUE(table) << error;
    EXPECT_EQ(table->lookup("huawei", " e1750 "), 320);
    EXPECT_EQ(table->lookup("ZTE INCORPORATED", "MF626"), 15401);
    EXPECT_FALSE(table->lookup("huawei", "E1750s"));
    EXPECT_FALSE(table->lookup("option", "E1750"));

    for (const char* bad :
         {"[]", "{\"models\": 1}", "{\"models\": [{\"maker\": \"x\"}]}",
          R"({"models": [{"maker": "x", "model": "y", "quorvelID": 0}]})",
          R"({"models": [{"maker": "", "model": "y", "quorvelID": 5}]})", "{not json"}) {
        EXPECT_FALSE(qv::ModemModelTable::fromJsonText(bad, &error)) << bad;
    }
}

TEST(ModemModelTable, ShippedTableKnowsTheE1750) {
    std::string error;
    auto table = qv::ModemModelTable::fromFile(
        std::string(QV_SOURCE_DIR) + "/CoreLayer/QVDeviceObserver/Resources/ModemModels.json",
        &error);
    ASSERT_TRUE(table) << error;
    EXPECT_EQ(table->lookup("huawei", "E1750"), 320);
}

TEST(SerialGsmBackend, InitialisationScriptLines) {
    EXPECT_EQ(qv::SerialGsmBackend::scriptCommands("ATE1;V1\r\n[L2N]AT&F\r\n[L2N]AT+CMEE=1\r\n"),
              (std::vector<std::string>{"ATE1;V1", "AT&F", "AT+CMEE=1"}));
    EXPECT_EQ(qv::SerialGsmBackend::scriptCommands("\r\n[L2N]\r\n AT \nAT\x1b+X"),
              (std::vector<std::string>{"AT", "AT+X"}));
    std::string many;
    for (int i = 0; i < 100; ++i) {
        many += "AT\r\n";
    }
    EXPECT_EQ(qv::SerialGsmBackend::scriptCommands(many).size(),
              qv::SerialGsmBackend::kMaxScriptCommands);
    EXPECT_EQ(qv::SerialGsmBackend::scriptCommands(std::string(5000, 'A'))[0].size(),
              qv::SerialGsmBackend::kMaxCommandLength);
}

TEST(UucpPortLock, LockFileNames) {
    EXPECT_EQ(qv::UucpPortLock::lockFileName("/dev/ttyUSB2"), "LCK..ttyUSB2");
    EXPECT_EQ(qv::UucpPortLock::lockFileName("/dev/pts/4"), "LCK..pts_4");
    EXPECT_EQ(qv::UucpPortLock::lockFileName("/tmp/x/ttyS0"), "LCK..ttyS0");
}

}  // namespace
