// Every shipped profile through every request of `qvdevice modem`, over a real pty, and the
// simulator's behaviours the engine must cope with.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "Foundation/JsonValue.h"
#include "ModemSimulator.h"
#include "QVGsmKit/GsmResultCodes.h"
#include "QVGsmKit/SerialGsmBackend.h"
#include "Support/ToolRunner.h"

namespace {

qvsim::ModemProfile loadProfile(const std::string& name) {
    std::string error;
    auto profile =
        qvsim::ModemProfile::fromFile(std::string(QV_MODEM_PROFILES_DIR) + "/" + name, &error);
    if (!profile) {
        ADD_FAILURE() << error;
        return {};
    }
    return *profile;
}

std::unique_ptr<qvsim::ModemSimulator> startModem(qvsim::ModemProfile profile) {
    std::string error;
    auto modem = qvsim::ModemSimulator::start(std::move(profile), &error);
    if (!modem) {
        ADD_FAILURE() << error;
    }
    return modem;
}

qv::Json ask(const std::string& port, const std::string& request, int* exitCode) {
    ToolRun run = runQvdevice({"modem", port, request, "--json", "--timeout", "10"});
    *exitCode = run.code;
    qv::Json json = qv::Json::parse(run.out, nullptr, false);
    if (json.is_discarded()) {
        ADD_FAILURE() << request << ": " << run.out << run.err;
        return qv::Json::object();
    }
    return json;
}

// What each real model's profile must give: nothing here is read from the profile itself.
struct Expected {
    const char* profile;
    int quorvelID;  // 0: unknown model, command 3 answers 21
    const char* imei;
    const char* iccid;     // "" when no ICCID is to be had
    const char* op;        // "" when the network request fails (19)
    int signal;            // -1: unknown
    const char* revision;  // checks inner blanks and multi-line answers
};

const Expected kExpected[] = {
    {"huawei-e1750.json", 320, "353142030000001", "89490200001234567890", "Vodafone.de", 17,
     "11.126.16.04.284"},
    {"huawei-e1750-sim-pin.json", 320, "353142030000001", "89490200001234567890", "", -1,
     "11.126.16.04.284"},
    {"huawei-e1550.json", 0, "353143030000002", "89445100001234567890", "Orange UK", 14,
     "11.608.09.01.21"},
    {"huawei-e226.json", 0, "353144030000003", "89490200001234567890", "o2 - de", 20,
     "11.310.15.00.150"},
    {"zte-mf626.json", 15401, "357539010000002", "8933011234567890123", "Orange F", 21,
     "BD_P673A2V1.0.0B09"},
    {"zte-mf627.json", 15407, "357539010000004", "8961031234567890123", "vodafone AU", 19,
     "BD_3GHAP673A4V1.0.0B02"},
    {"zte-k3805-z.json", 15412, "356412040000009", "", "Vodafone.de", 16, "R1.5.3.3"},
    {"zte-mf622.json", 0, "357539010000005", "8944201234567890123", "3 UK", 12,
     "3UKP671M3V1.0.0B08 3UKP671M3V1.0.0B08 1  [Jan 07 2008 16:00:00]"},
    {"sierra-mc8780.json", 5060, "354165010000003", "89014101234567890123", "AT&T", 14,
     "K1_0_2_8AP C:/WS/FW/K1_0_2_8AP/MSM6280/SRC 2007/07/19 16:33:50"},
    {"sierra-mc8790.json", 0, "352974020000006", "89014104212345678901", "AT&T", 16,
     "K1_0_2_8AP C:/WS/FW/K1_0_2_8AP/MSM6290/SRC 2008/09/17 14:00:22"},
    {"sierra-mercury-c885.json", 0, "359866010000007", "89014104212345678902", "AT&T", 9,
     "J1_0_1_26AP C:/WS/FW/J1_0_1_26AP/MSM7200A/SRC/AMSS 2009/01/30 07:58:06"},
    {"option-icon-72.json", 0, "357516030000008", "89318100001234567890", "KPN", 17,
     "2.5.21Hd (Date: Jun 17 2008, Time: 12:30:47)"},
    {"novatel-xu870.json", 5103, "012051500000009", "89014104211234567890", "AT&T", -1,
     "9.5.05.01-02  [2006-10-20 17:19:09]"},
    {"nokia-2720a.json", 0, "012350150000010", "", "Elisa", 23, "V 08.62"},
    {"sony-ericsson-md300.json", 2101, "349583710000011", "", "", -1, "R3A018"},
};

TEST(ModemProfiles, EveryProfileThroughEveryRequestOfQvdeviceModem) {
    std::size_t shipped = 0;
    for (const auto& entry : std::filesystem::directory_iterator(QV_MODEM_PROFILES_DIR)) {
        shipped += entry.path().extension() == ".json" ? 1 : 0;
    }
    EXPECT_EQ(shipped, std::size(kExpected) + 1) << "a profile without expectations (or silent)";
    for (const Expected& e : kExpected) {
        SCOPED_TRACE(e.profile);
        auto modem = startModem(loadProfile(e.profile));
        ASSERT_TRUE(modem);
        const std::string port = modem->portPath();
        int code = 0;

        qv::Json identify = ask(port, "identify", &code);
        if (e.quorvelID > 0) {
            EXPECT_EQ(code, 0);
            EXPECT_EQ(identify["quorvelID"], e.quorvelID);
        } else {
            EXPECT_EQ(code, 1);
            EXPECT_EQ(identify["code"], kGsmErrorUnknownModel);
        }
        qv::Json model = ask(port, "model", &code);
        EXPECT_EQ(code, 0);
        EXPECT_FALSE(model["answer"]["model"].get<std::string>().empty());

        qv::Json info = ask(port, "info", &code);
        EXPECT_EQ(code, 0);
        EXPECT_EQ(info["answer"]["IMEI"], e.imei);
        EXPECT_EQ(info["answer"]["Revision"], e.revision);
        if (*e.iccid != '\0') {
            EXPECT_EQ(info["answer"]["ICCID"], e.iccid);
        } else {
            EXPECT_FALSE(info["answer"].contains("ICCID")) << info.dump();
        }

        qv::Json network = ask(port, "network", &code);
        if (*e.op != '\0') {
            EXPECT_EQ(code, 0);
            EXPECT_EQ(network["answer"]["Operator"], e.op);
        } else {
            EXPECT_EQ(code, 1);
            EXPECT_EQ(network["code"], kGsmErrorNetworkInfo);
        }
        if (e.signal >= 0) {
            EXPECT_EQ(network["answer"]["SignalQuality"], e.signal);
        } else if (network.contains("answer")) {
            EXPECT_FALSE(network["answer"].contains("SignalQuality")) << network.dump();
        }

        qv::Json init = ask(port, "init", &code);
        EXPECT_EQ(code, 0) << init.dump();
        EXPECT_EQ(init["code"], kGsmResultSuccess);
    }
    auto silent = startModem(loadProfile("silent.json"));
    ASSERT_TRUE(silent);
    for (const char* request : {"identify", "model", "init", "info", "network"}) {
        ToolRun run = runQvdevice({"modem", silent->portPath(), request, "--timeout", "0.6"});
        EXPECT_EQ(run.code, 1) << request;
    }
}

class ModemBehaviours : public ::testing::Test {
  protected:
    qv::SerialGsmOptions options(double probe = 1.5) const {
        qv::SerialGsmOptions result;
        result.probeTimeout = probe;
        result.commandTimeout = 2.0;
        result.requestTimeout = 10.0;
        result.lockDirectories = {};
        return result;
    }
};

TEST_F(ModemBehaviours, ProbeSurvivesALostFirstCommandAnErrorAndPowerUpSilence) {
    qvsim::ModemProfile lost = loadProfile("huawei-e1750.json");
    lost.loseFirstCommand = true;
    qvsim::ModemProfile dirty = loadProfile("huawei-e1750.json");
    dirty.firstCommandError = true;
    qvsim::ModemProfile sleepy = loadProfile("huawei-e1750.json");
    sleepy.powerUpSilence = 0.7;
    qv::SerialGsmBackend backend(options());
    // Asked at once: the first try (0.5 s) goes unheard, the second is answered.
    auto sleepyModem = startModem(sleepy);
    ASSERT_TRUE(sleepyModem);
    EXPECT_EQ(backend.identifyDevice(sleepyModem->portPath(), -1).deviceId, 320);
    auto commands = sleepyModem->commands();
    EXPECT_GE(std::count(commands.begin(), commands.end(), "AT"), 2);

    auto lostModem = startModem(lost);
    auto dirtyModem = startModem(dirty);
    ASSERT_TRUE(lostModem && dirtyModem);

    EXPECT_EQ(backend.identifyDevice(lostModem->portPath(), -1).deviceId, 320);
    commands = lostModem->commands();
    ASSERT_GE(commands.size(), 3u);
    EXPECT_EQ(commands[0], "AT");
    EXPECT_EQ(commands[1], "AT");  // sent again within the probe's bound

    // ERROR proves the port speaks AT: no second probe.
    EXPECT_EQ(backend.identifyDevice(dirtyModem->portPath(), -1).deviceId, 320);
    commands = dirtyModem->commands();
    ASSERT_GE(commands.size(), 2u);
    EXPECT_EQ(commands[1], "AT+CGMI");
}

TEST_F(ModemBehaviours, StickLeftInUcs2IsDecodedAndInitialisationSetsPlainText) {
    qvsim::ModemProfile profile = loadProfile("zte-mf627.json");
    profile.charset = "UCS2";
    profile.bytePerWrite = false;
    auto modem = startModem(profile);
    ASSERT_TRUE(modem);
    qv::SerialGsmBackend backend(options());
    qv::SerialGsmResult network =
        backend.performAndWait(qv::SerialGsmRequest::NetworkInfo, modem->portPath());
    ASSERT_EQ(network.code, 0) << network.reason;
    EXPECT_EQ(network.data["Operator"], qv::Value("vodafone AU"));

    qv::SerialGsmResult init = backend.performAndWait(
        qv::SerialGsmRequest::GroundInit, modem->portPath(), "ATE1;V1\r\n[L2N]AT&F\r\n");
    ASSERT_EQ(init.code, 0) << init.reason;
    auto commands = modem->commands();
    EXPECT_EQ(commands.back(), "AT+CSCS=\"IRA\"");
    network = backend.performAndWait(qv::SerialGsmRequest::NetworkInfo, modem->portPath());
    EXPECT_EQ(network.data["Operator"], qv::Value("vodafone AU"));
}

TEST_F(ModemBehaviours, ConfigurationSequenceRunsAsGivenWithoutModelKnowledge) {
    // A database sequence such as Novatel's AT$NWDMAT=1 runs through ground initialisation.
    auto modem = startModem(loadProfile("novatel-xu870.json"));
    ASSERT_TRUE(modem);
    qv::SerialGsmBackend backend(options());
    qv::SerialGsmResult init = backend.performAndWait(qv::SerialGsmRequest::GroundInit,
                                                      modem->portPath(), "AT$NWDMAT=1\r\n");
    EXPECT_EQ(init.code, 0) << init.reason;
    auto commands = modem->commands();
    EXPECT_NE(std::find(commands.begin(), commands.end(), "AT$NWDMAT=1"), commands.end());
}

TEST_F(ModemBehaviours, CmeErrorsInNumberAndTextFormAndNoSim) {
    for (int cmee : {0, 1, 2}) {
        qvsim::ModemProfile profile = loadProfile("huawei-e1750-sim-pin.json");
        profile.cmee = cmee;
        auto modem = startModem(profile);
        ASSERT_TRUE(modem);
        qv::SerialGsmBackend backend(options());
        qv::SerialGsmResult info =
            backend.performAndWait(qv::SerialGsmRequest::DeviceInfo, modem->portPath());
        ASSERT_EQ(info.code, 0) << info.reason;
        EXPECT_TRUE(info.data["IMSI"].isNil()) << cmee;
        EXPECT_EQ(info.data["ICCID"], qv::Value("89490200001234567890")) << cmee;
    }
}

TEST(ModemSimulatorOutput, LongReplyWaitsForRoomOnAFullPty) {
    qvsim::ModemProfile profile;
    profile.echo = false;
    std::vector<std::string> lines;
    for (int i = 0; i < 400; ++i) {
        lines.push_back("+CPBR: " + std::to_string(i) + ",\"" + std::string(400, 'x') + "\"");
    }
    lines.push_back("OK");
    profile.replies["AT+CPBR=1,400"] = lines;
    auto modem = startModem(profile);
    ASSERT_TRUE(modem);
    int fd = ::open(modem->portPath().c_str(), O_RDWR | O_NOCTTY);
    ASSERT_GE(fd, 0);
    std::string command = "AT+CPBR=1,400\r";
    ASSERT_EQ(::write(fd, command.data(), command.size()), static_cast<ssize_t>(command.size()));
    // Nobody reads for a moment: the pty fills up and the simulator must wait, not drop.
    pollfd nothing{-1, 0, 0};
    ::poll(&nothing, 1, 400);
    std::string received;
    char buffer[4096];
    while (received.find("\r\nOK\r\n") == std::string::npos) {
        pollfd readable{fd, POLLIN, 0};
        if (::poll(&readable, 1, 5000) <= 0) {
            break;
        }
        ssize_t size = ::read(fd, buffer, sizeof buffer);
        if (size <= 0) {
            break;
        }
        received.append(buffer, static_cast<std::size_t>(size));
    }
    ::close(fd);
    std::size_t expected = 0;
    for (const std::string& line : lines) {
        expected += line.size() + 4;
    }
    EXPECT_EQ(received.size(), expected);
    EXPECT_EQ(std::count(received.begin(), received.end(), 'x'), 400 * 400);
}

}  // namespace
