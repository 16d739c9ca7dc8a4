// The modem recorder hands every call through unchanged and keeps what a scripted modem and a
// modem-simulator profile need to give the same answers again.
#include <gtest/gtest.h>

#include <memory>

#include "Foundation/JsonValue.h"
#include "QVGsmKit/ScriptedGsmBackend.h"
#include "RunLoop/VirtualRunLoop.h"
#include "qvdevice/IdentifierMasker.h"
#include "qvdevice/ModemConversationRecorder.h"

#ifdef QV_MODEM_PROFILES_DIR
#include "ModemProfile.h"
#endif

namespace {

const char* kPort = "/dev/cu.ttyUSB2";

TEST(ModemConversationRecorder, ItsScriptedModemsAnswerAsTheRecordedModemDid) {
    auto loop = std::make_shared<qv::VirtualRunLoop>();
    qv::RunLoop::setCurrent(loop);
    qv::Json description = qv::Json::parse(R"({"/dev/cu.ttyUSB2": {
        "identify": {"deviceId": 320},
        "modelInfo": {"model": "E1750"},
        "groundInit": 7,
        "deviceInfo": {"IMEI": "353142030000001", "Revision": "11.126.16.04.284"},
        "networkInfo": [{"code": 7, "complete": 1, "info": {"Operator": "Vodafone.de"}},
                        {"code": 19, "complete": 1}],
        "latency": 0.25}})");
    std::string error;
    auto value = qv::valueFromJson(description, "modems", &error);
    ASSERT_TRUE(value) << error;
    auto scripted = qv::ScriptedGsmBackend::fromDescription(*value, &error);
    ASSERT_TRUE(scripted) << error;
    qvdevice::ModemConversationRecorder recorder(scripted);

    EXPECT_EQ(recorder.identifyDevice(kPort, 0).deviceId, 320);
    EXPECT_EQ(recorder.modelInformation(kPort, 320).model.stringValue(), "E1750");
    EXPECT_EQ(recorder.identifyDevice("/dev/cu.ttyUSB0", 0).error, 11);  // no modem there
    qv::GsmRequest request{320, kPort, loop};
    std::vector<qv::GsmAnswer> answers;
    auto keep = [&](qv::GsmAnswer answer) { answers.push_back(std::move(answer)); };
    ASSERT_TRUE(recorder.startGroundInit(request, "ATZ\r\n", keep));
    ASSERT_TRUE(recorder.getDeviceInfo(request, keep));
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(recorder.startGetNetworkInfo(request, keep));
    }
    loop->runFor(5.0);
    ASSERT_EQ(answers.size(), 5u);  // every answer reached the framework
    EXPECT_EQ(answers[1].data["IMEI"].stringValue(), "353142030000001");

    qv::Json modems = recorder.scriptedModems(nullptr);
    const qv::Json& port = modems[kPort];
    EXPECT_EQ(port["identify"], description[kPort]["identify"]);
    EXPECT_EQ(port["modelInfo"], description[kPort]["modelInfo"]);
    EXPECT_EQ(port["groundInit"], 7);
    EXPECT_EQ(port["deviceInfo"], description[kPort]["deviceInfo"]);
    ASSERT_EQ(port["networkInfo"].size(), 3u);
    EXPECT_EQ(port["networkInfo"][0]["info"]["Operator"], "Vodafone.de");
    EXPECT_EQ(port["networkInfo"][2]["code"], 19);
    EXPECT_DOUBLE_EQ(port["latency"].get<double>(), 0.25);
    EXPECT_EQ(modems["/dev/cu.ttyUSB0"]["identify"]["error"], 11);
    // What it wrote is a description the scripted backend takes again.
    auto again = qv::valueFromJson(modems, "modems", &error);
    ASSERT_TRUE(again) << error;
    EXPECT_TRUE(qv::ScriptedGsmBackend::fromDescription(*again, &error)) << error;

    qvdevice::IdentifierMasker masker(9);
    std::string masked = recorder.scriptedModems(&masker)[kPort]["deviceInfo"]["IMEI"];
    EXPECT_NE(masked, "353142030000001");
    EXPECT_TRUE(qvdevice::IdentifierMasker::luhnValid(masked));
    qv::RunLoop::setCurrent(nullptr);
}

TEST(ModemConversationRecorder, ItsProfileKeepsTheModemsLineEndsEchoReportsAndFinalResults) {
    qvdevice::ModemConversationRecorder recorder(nullptr);
    // A modem with CR-only line ends and no echo, a report in the middle of an answer, an answer
    // split over two reads, a command never answered, and garbage that is dropped.
    recorder.bytesReceived(kPort, "\r^BOOT:1\r", 0.5);  // before any command: nobody's
    recorder.commandSent(kPort, "AT+CGSN", 1.0);
    recorder.bytesReceived(kPort, "\r353142030000001\r", 1.1);
    recorder.bytesReceived(kPort, "\r^RSSI:17\r\rOK\r", 1.2);
    recorder.commandSent(kPort, "AT+CCID", 2.0);
    recorder.bytesReceived(kPort, "\r\x01\x02garbage\r\rERROR\r", 2.1);
    recorder.commandSent(kPort, "AT+CSQ", 3.0);
    recorder.commandSent(kPort, "at+cgsn", 4.0);  // asked again: the first answer stands
    recorder.bytesReceived(kPort, "\r999\r\rOK\r", 4.1);

    auto profiles = recorder.simulatorProfiles(nullptr);
    ASSERT_EQ(profiles.size(), 1u);
    const qv::Json& profile = profiles[kPort];
    EXPECT_EQ(profile["echo"], false);
    EXPECT_EQ(profile["lineEnd"], "cr");
    EXPECT_DOUBLE_EQ(profile["latency"].get<double>(), 0.1);
    EXPECT_EQ(profile["replies"]["AT+CGSN"], (qv::Json{"353142030000001", "^RSSI:17", "OK"}));
    EXPECT_EQ(profile["replies"]["AT+CCID"], "ERROR");
    EXPECT_FALSE(profile["replies"].contains("AT+CSQ"));

    qvdevice::IdentifierMasker masker(3);
    auto masked = recorder.simulatorProfiles(&masker)[kPort];
    EXPECT_EQ(masked["replies"]["AT+CGSN"][0], masker.maskText("353142030000001"));
    EXPECT_EQ(masked["replies"]["AT+CGSN"][1], "^RSSI:17");
#ifdef QV_MODEM_PROFILES_DIR
    // The simulator reads it.
    std::string error;
    auto read = qvsim::ModemProfile::fromJsonText(masked.dump(), &error);
    ASSERT_TRUE(read) << error;
    EXPECT_EQ(read->lineEnd, "\r");
    EXPECT_FALSE(read->echo);
    EXPECT_EQ(read->replies.at("AT+CCID"), (std::vector<std::string>{"ERROR"}));
#endif
}

}  // namespace
