// The reader against answers real modems are recorded giving (each case names its transcript),
// fed whole, cut in two at every byte and one byte at a time: the pieces never change the answer.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "QVGsmKit/AtResponseReader.h"

namespace {

using qv::AtFinal;
using qv::AtResponse;
using qv::AtResponseReader;

struct Recorded {
    const char* source;
    std::string command;
    std::string bytes;  // what the modem sent after the command
    std::vector<std::string> lines;
    AtFinal final;
};

const std::vector<Recorded>& recordedAnswers() {
    static const std::vector<Recorded> kCases{
        {"gammu issue #94, Huawei E1750 (echo, CR before CR LF)",
         "AT+CGMM",
         "AT+CGMM\r\r\nE1750\r\n\r\nOK\r\n",
         {"E1750"},
         AtFinal::Ok},
        {"gammu issue #94, E1750 refusing in its own words",
         "AT+CPROT=?",
         "AT+CPROT=?\r\r\nCOMMAND NOT SUPPORT\r\n",
         {},
         AtFinal::Error},
        {"ModemManager option plugin, Option IMEI with a serial tail",
         "AT+CGSN",
         "\r\n357516032005989,TR19A8P11R\r\n\r\nOK\r\n",
         {"357516032005989,TR19A8P11R"},
         AtFinal::Ok},
        {"modemmanager-devel 2013-09-25, ^ICCID? with the SIM locked",
         "at^iccid?",
         "\r\n^iccid: \"9810xxxxxxxxxxxxxxxx\"\r\nOK\r\n",
         {"^iccid: \"9810xxxxxxxxxxxxxxxx\""},
         AtFinal::Ok},
        {"modemmanager-devel 2013-09-25, +CRSM refused in text form",
         "at+CRSM=176,12258,0,0,10",
         "\r\n+CME ERROR: SIM PIN required\r\n",
         {},
         AtFinal::CmeError},
        {"ModemManager tests, Sierra Mercury: extended +CREG report inside the answer",
         "AT+CREG?",
         "\r\n+CREG: 1,84CD,00D30156\r\n\r\n+CREG: 1,1,84CD,00D30173\r\n\r\nOK\r\n",
         {"+CREG: 1,1,84CD,00D30173"},
         AtFinal::Ok},
        {"ModemManager tests, quoted extended report with leading zeros",
         "AT+CREG?",
         "\r\n+CREG: 001,\"0001\",\"0010\",000\r\n\r\n+CREG: "
         "2,1,\"0502\",\"0404736D\"\r\n\r\nOK\r\n",
         {"+CREG: 2,1,\"0502\",\"0404736D\""},
         AtFinal::Ok},
        {"ModemManager tests, Novatel XU870 '+CREG: 2,,' report",
         "AT+CREG?",
         "\r\n+CREG: 2,,\r\n\r\n+CREG: 0,2\r\n\r\nOK\r\n",
         {"+CREG: 0,2"},
         AtFinal::Ok},
        {"ModemManager tests, unsolicited form with access technology",
         "AT+CGREG?",
         "\r\n+CGREG: 6,\"8B37\",\"0A265185\",7\r\n\r\n+CGREG: 2,6,\"8B37\",\"0A265185\",7\r\n"
         "\r\nOK\r\n",
         {"+CGREG: 2,6,\"8B37\",\"0A265185\",7"},
         AtFinal::Ok},
        {"ModemManager huawei plugin, ^MODE ending CR CR LF",
         "AT+CSQ",
         "\r\n^MODE: 2\r\r\n\r\n+CSQ: 17,99\r\n\r\nOK\r\n",
         {"+CSQ: 17,99"},
         AtFinal::Ok},
        {"ModemManager quectel and simtech plugins, bare reports",
         "AT+CGMI",
         "\r\nRDY\r\n\r\nPB DONE\r\n\r\nSMS DONE\r\n\r\nQuectel\r\n\r\nOK\r\n",
         {"Quectel"},
         AtFinal::Ok},
        {"ModemManager ublox plugin, +PBREADY",
         "AT+CGMM",
         "\r\n+PBREADY\r\n\r\nSARA\r\n\r\nOK\r\n",
         {"SARA"},
         AtFinal::Ok},
        {"ModemManager tests, Nokia 2720a revision over four lines",
         "AT+CGMR",
         "\r\nV 08.62\r\n24-07-09\r\nRM-520\r\n(c) Nokia            \r\n\r\nOK\r\n",
         {"V 08.62", "24-07-09", "RM-520", "(c) Nokia"},
         AtFinal::Ok},
        {"ModemManager tests, Novatel XU870 revision with an inner double blank",
         "AT+CGMR",
         "\r\n9.5.05.01-02  [2006-10-20 17:19:09]\r\n\r\nOK\r\n",
         {"9.5.05.01-02  [2006-10-20 17:19:09]"},
         AtFinal::Ok},
        {"libqmi-devel 2017-04-21, Sierra MC8790 first AT answered ERROR",
         "AT",
         "\r\nERROR\r\n",
         {},
         AtFinal::Error},
        {"LF CR line ends and a tab",
         "AT+CGMM",
         "\n\rSierra\tWireless\n\r\n\rOK\n\r",
         {"Sierra Wireless"},
         AtFinal::Ok},
        {"bare CR line ends", "AT+CSQ", "\r+CSQ: 21,99\r\rOK\r", {"+CSQ: 21,99"}, AtFinal::Ok},
        {"NUL and 0xFF burst of a stick just plugged in",
         "AT",
         std::string("\0\0\0\xff\xff\xff\r\n", 8) + "OK\r\n",
         {},
         AtFinal::Ok},
        {"GSM 7-bit '@' and '_' inside a line",
         "AT+COPS?",
         "\r\n+COPS: 0,0,\"E" + std::string(1, '\0') + "Net\x11Test\"\r\n\r\nOK\r\n",
         {"+COPS: 0,0,\"E@Net_Test\""},
         AtFinal::Ok},
    };
    return kCases;
}

AtResponse readInPieces(const Recorded& c, const std::vector<std::size_t>& cuts) {
    AtResponseReader reader;
    reader.begin(c.command);
    std::size_t from = 0;
    for (std::size_t cut : cuts) {
        reader.feed(c.bytes.data() + from, cut - from);
        from = cut;
    }
    reader.feed(c.bytes.data() + from, c.bytes.size() - from);
    return reader.response();
}

TEST(AtRecordedAnswers, SameAnswerWholeCutAtEveryByteAndByteByByte) {
    for (const Recorded& c : recordedAnswers()) {
        SCOPED_TRACE(c.source);
        AtResponse whole = readInPieces(c, {});
        EXPECT_EQ(whole.final, c.final);
        EXPECT_EQ(whole.lines, c.lines);
        for (std::size_t cut = 1; cut < c.bytes.size(); ++cut) {
            AtResponse pieces = readInPieces(c, {cut});
            EXPECT_EQ(pieces.final, whole.final) << "cut at " << cut;
            EXPECT_EQ(pieces.lines, whole.lines) << "cut at " << cut;
        }
        std::vector<std::size_t> everyByte;
        for (std::size_t i = 1; i < c.bytes.size(); ++i) {
            everyByte.push_back(i);
        }
        AtResponse bytes = readInPieces(c, everyByte);
        EXPECT_EQ(bytes.final, whole.final);
        EXPECT_EQ(bytes.lines, whole.lines);
    }
}

// Two commands in a row, as the engine sends them: the next command goes out as soon as the
// first one's final result is read, so whatever came behind that result in the same read, and
// the rest of a report cut there, is the past of the second command, never its answer.
TEST(AtRecordedAnswers, ReportCutBehindAFinalResultNeverJoinsTheNextAnswer) {
    const std::string first = "\r\nOK\r\n";
    const std::string report = "\r\n+CREG: 1,84CD,00D30156\r\n\r\n^RSSI:17\r\nRING\r\n";
    const std::string second = "\r\n357516032005989\r\n\r\nOK\r\n";
    const std::string before = first + report;  // all sent before the second command
    for (std::size_t cut = first.size(); cut <= before.size(); ++cut) {
        for (std::size_t split = 0; split <= before.size() - cut + second.size(); ++split) {
            // Read 1: up to `cut`; the second command is sent; then the rest in two reads.
            AtResponseReader reader;
            reader.begin("AT+COPS=3,0");
            ASSERT_TRUE(reader.feed(before.data(), cut)) << cut;
            reader.begin("AT+CGSN");
            std::string rest = before.substr(cut) + second;
            reader.feed(rest.data(), split);
            reader.feed(rest.data() + split, rest.size() - split);
            ASSERT_TRUE(reader.complete()) << cut << "/" << split;
            EXPECT_EQ(reader.response().lines, std::vector<std::string>{"357516032005989"})
                << "cut " << cut << ", split " << split;
        }
    }
    // A late final result that arrives while the engine only listens is a report too.
    AtResponseReader reader;
    reader.begin("AT");
    reader.standBy();
    std::string late = "\r\nOK\r\n";
    EXPECT_FALSE(reader.feed(late.data(), late.size()));
    reader.begin("AT+CGMM");
    std::string answer = "\r\nE173\r\n\r\nOK\r\n";
    EXPECT_TRUE(reader.feed(answer.data(), answer.size()));
    EXPECT_EQ(reader.response().lines, std::vector<std::string>{"E173"});

    // The late answer of a command given up, cut by the next command, has no report prefix to
    // give it away: begun before that command, it is still not its answer. (A line whose first
    // character comes after the command cannot be told from its answer: cuts from 3, behind
    // "\r\nE".)
    for (std::size_t cut = 3; cut < 7; ++cut) {
        const std::string late = "\r\nE1750\r\n";
        AtResponseReader next;
        next.begin("AT+CGMM");
        next.standBy();
        EXPECT_FALSE(next.feed(late.data(), cut));
        next.begin("AT+CGSN");
        std::string rest = late.substr(cut) + "\r\n357516032005989\r\n\r\nOK\r\n";
        EXPECT_TRUE(next.feed(rest.data(), rest.size()));
        EXPECT_EQ(next.response().lines, std::vector<std::string>{"357516032005989"})
            << "cut " << cut;
    }
}

TEST(AtRecordedAnswers, RegistrationLinesByShapeAndCommand) {
    struct Case {
        const char* line;
        const char* command;
        bool unsolicited;
    } cases[] = {
        {"+CREG: 1,3", "AT+CREG?", false},
        {"+CREG: 3", "AT+CREG?", true},
        {"+CREG: 2,1,8BE3,2BAF", "AT+CREG?", false},
        {"+CREG: 1,8BE3,2BAF", "AT+CREG?", true},
        {"+CREG: 1,0001,0010,0", "AT+CREG?", true},
        {"+CREG: 2,1,  0 5, 2715", "AT+CREG?", false},
        {"+CREG: 2,11,003F,8FE3, B, C2816", "AT+CREG?", true},
        {"+CREG: (0-2)", "AT+CREG=?", false},
        {"+CREG: 1", "AT+CREG=2", true},
        {"+CREG: 0,1", "AT+CSQ", true},
        {"+CGREG: 2,1,\"31C5\",\"0083F7CD\"", "AT+CGREG?", false},
        {"+CEREG: 1,\"31C5\",\"0083F7CD\",7", "AT+CEREG?", true},
        {"+COPS: 0,0,\"x\"", "AT+COPS?", false},
        {"PB DONE", "AT+CPBR=1", true},
        {"Nokia", "AT+CGMI", false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(AtResponseReader::isUnsolicited(c.line, c.command), c.unsolicited)
            << c.line << " during " << c.command;
    }
}

}  // namespace
