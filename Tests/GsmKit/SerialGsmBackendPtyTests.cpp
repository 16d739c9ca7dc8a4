// The AT engine against simulated modems on real pseudo-terminals.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <string>

#include "Foundation/JsonValue.h"
#include "ModemSimulator.h"
#include "QVGsmKit/GsmResultCodes.h"
#include "QVGsmKit/SerialGsmBackend.h"
#include "QVGsmKit/UucpPortLock.h"
#include "Support/ToolRunner.h"

namespace {

using Clock = std::chrono::steady_clock;
using qv::SerialGsmRequest;

qvsim::ModemProfile profileNamed(const std::string& name) {
    std::string error;
    auto profile =
        qvsim::ModemProfile::fromFile(std::string(QV_MODEM_PROFILES_DIR) + "/" + name, &error);
    if (!profile) {
        ADD_FAILURE() << error;
        return {};
    }
    return *profile;
}

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

class SerialGsmPty : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/qv-at-locks-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        lockDir_ = pattern;
    }
    void TearDown() override { std::filesystem::remove_all(lockDir_); }

    std::unique_ptr<qvsim::ModemSimulator> modem(qvsim::ModemProfile profile) {
        std::string error;
        auto simulator = qvsim::ModemSimulator::start(std::move(profile), &error);
        if (!simulator) {
            ADD_FAILURE() << error;
        }
        return simulator;
    }

    qv::SerialGsmOptions options(double probe = 1.0, double command = 2.0) const {
        qv::SerialGsmOptions result;
        result.probeTimeout = probe;
        result.commandTimeout = command;
        result.requestTimeout = 10.0;
        result.lockDirectories = {lockDir_};
        return result;
    }

    std::string lockPathFor(const std::string& port) const {
        return lockDir_ + "/" + qv::UucpPortLock::lockFileName(port);
    }

    std::string lockDir_;
};

TEST_F(SerialGsmPty, EveryRequestOfAnE1750) {
    auto e1750 = modem(profileNamed("huawei-e1750.json"));
    ASSERT_TRUE(e1750);
    qv::SerialGsmBackend backend(options());
    const std::string port = e1750->portPath();

    qv::GsmDeviceIdentification identification = backend.identifyDevice(port, -1);
    EXPECT_EQ(identification.error, 0);
    EXPECT_EQ(identification.deviceId, 320);

    qv::GsmModelInformation information = backend.modelInformation(port, 320);
    EXPECT_EQ(information.error, 0);
    EXPECT_EQ(information.model, qv::Value("E1750"));
    EXPECT_TRUE(information.pmn.isNil());

    qv::SerialGsmResult info = backend.performAndWait(SerialGsmRequest::DeviceInfo, port);
    ASSERT_EQ(info.code, 0) << info.reason;
    EXPECT_EQ(info.data["Manufacturer"], qv::Value("huawei"));
    EXPECT_EQ(info.data["Model"], qv::Value("E1750"));
    EXPECT_EQ(info.data["Revision"], qv::Value("11.126.16.04.284"));
    EXPECT_EQ(info.data["IMEI"], qv::Value("353142030000001"));
    EXPECT_EQ(info.data["IMSI"], qv::Value("262021234567890"));
    EXPECT_EQ(info.data["ICCID"], qv::Value("89490200001234567890"));  // AT^ICCID?, swapped

    // The asynchronous requests answer through the handler, with the framework's codes.
    auto ask = [&](auto start) {
        auto promise = std::make_shared<std::promise<qv::GsmAnswer>>();
        auto future = promise->get_future();
        qv::GsmRequest request{320, port, qv::RunLoop::currentShared()};
        EXPECT_TRUE(start(
            request, [promise](qv::GsmAnswer answer) { promise->set_value(std::move(answer)); }));
        EXPECT_EQ(future.wait_for(std::chrono::seconds(10)), std::future_status::ready);
        return future.get();
    };
    qv::GsmAnswer init = ask([&](const qv::GsmRequest& r, qv::GsmAnswerHandler h) {
        return backend.startGroundInit(r, "ATE1;V1\r\n[L2N]AT&F\r\n[L2N]AT+CMEE=1\r\n", h);
    });
    EXPECT_EQ(init.code, kGsmResultSuccess);
    EXPECT_TRUE(init.data.isNil());
    qv::GsmAnswer network = ask([&](const qv::GsmRequest& r, qv::GsmAnswerHandler h) {
        return backend.startGetNetworkInfo(r, h);
    });
    EXPECT_EQ(network.code, kGsmResultSuccess);
    EXPECT_EQ(network.complete, 1);
    EXPECT_EQ(network.data["Operator"], qv::Value("Vodafone.de"));
    EXPECT_EQ(network.data["SignalQuality"], qv::Value(17));
    EXPECT_EQ(network.data["RAT"], qv::Value("UMTS"));
    EXPECT_EQ(network.data["RegistrationState"], qv::Value(1));
    qv::GsmAnswer device = ask([&](const qv::GsmRequest& r, qv::GsmAnswerHandler h) {
        return backend.getDeviceInfo(r, h);
    });
    EXPECT_EQ(device.code, kGsmResultSuccess);
    EXPECT_EQ(device.data["IMEI"], qv::Value("353142030000001"));

    // The script ran as given, and the port was unlocked after each request.
    auto commands = e1750->commands();
    EXPECT_NE(std::find(commands.begin(), commands.end(), "ATE1;V1"), commands.end());
    EXPECT_NE(std::find(commands.begin(), commands.end(), "AT+CMEE=1"), commands.end());
    EXPECT_FALSE(std::filesystem::exists(lockPathFor(port)));
}

TEST_F(SerialGsmPty, EchoOffCarriageReturnsOnlyAndNoise) {
    auto zte = modem(profileNamed("zte-mf626.json"));
    auto sierra = modem(profileNamed("sierra-mc8780.json"));
    ASSERT_TRUE(zte && sierra);
    qv::SerialGsmBackend backend(options());
    EXPECT_EQ(backend.identifyDevice(zte->portPath(), -1).deviceId, 15401);
    EXPECT_EQ(backend.identifyDevice(sierra->portPath(), -1).deviceId, 5060);

    qv::SerialGsmResult info =
        backend.performAndWait(SerialGsmRequest::DeviceInfo, zte->portPath());
    ASSERT_EQ(info.code, 0) << info.reason;
    EXPECT_EQ(info.data["ICCID"], qv::Value("8933011234567890123"));  // the third fallback
    qv::SerialGsmResult network =
        backend.performAndWait(SerialGsmRequest::NetworkInfo, sierra->portPath());
    EXPECT_EQ(network.data["Operator"], qv::Value("AT&T"));
    EXPECT_EQ(network.data["SignalQuality"], qv::Value(14));
}

TEST_F(SerialGsmPty, GarbageSlowAnswersAndRefusals) {
    qvsim::ModemProfile noisy = profileNamed("huawei-e1750.json");
    noisy.garbage = true;
    noisy.lineEnd = "\n";
    auto garbled = modem(noisy);
    qvsim::ModemProfile slowProfile = profileNamed("huawei-e1750.json");
    slowProfile.latency = 0.6;
    auto slow = modem(slowProfile);
    qvsim::ModemProfile strict = profileNamed("huawei-e1750.json");
    strict.replies["AT+CMEE=1"] = {"+CME ERROR: 3"};
    strict.replies["AT+CGMM"] = {"E9999", "OK"};
    auto refusing = modem(strict);
    ASSERT_TRUE(garbled && slow && refusing);

    qv::SerialGsmBackend backend(options(1.0, 1.0));
    EXPECT_EQ(backend.identifyDevice(garbled->portPath(), -1).deviceId, 320);
    // Each answer takes 0.6 s, within the 1 s the options allow per command.
    EXPECT_EQ(backend.identifyDevice(slow->portPath(), -1).deviceId, 320);

    qv::SerialGsmResult init = backend.performAndWait(
        SerialGsmRequest::GroundInit, refusing->portPath(), "AT\r\n[L2N]AT+CMEE=1\r\n[L2N]AT\r\n");
    EXPECT_EQ(init.code, kGsmErrorCommandRefused);
    EXPECT_NE(init.reason.find("+CME ERROR: 3"), std::string::npos) << init.reason;
    qv::SerialGsmResult unknown =
        backend.performAndWait(SerialGsmRequest::Identify, refusing->portPath());
    EXPECT_EQ(unknown.code, kGsmErrorUnknownModel);
    EXPECT_NE(unknown.reason.find("E9999"), std::string::npos);
}

TEST_F(SerialGsmPty, SimPinRequiredLeavesTheSimKeysOut) {
    auto locked = modem(profileNamed("huawei-e1750-sim-pin.json"));
    ASSERT_TRUE(locked);
    qv::SerialGsmBackend backend(options());
    qv::SerialGsmResult info =
        backend.performAndWait(SerialGsmRequest::DeviceInfo, locked->portPath());
    ASSERT_EQ(info.code, 0) << info.reason;
    EXPECT_EQ(info.data["IMEI"], qv::Value("353142030000001"));
    EXPECT_TRUE(info.data["IMSI"].isNil());
    // Huawei's ^ICCID? answers without the PIN; +CRSM would not.
    EXPECT_EQ(info.data["ICCID"], qv::Value("89490200001234567890"));
    qv::SerialGsmResult network =
        backend.performAndWait(SerialGsmRequest::NetworkInfo, locked->portPath());
    // No operator and +CSQ 99 (not known): nothing to report is a failure, not a signal of 99.
    EXPECT_EQ(network.code, kGsmErrorNetworkInfo);
    EXPECT_TRUE(network.data["Operator"].isNil());
    EXPECT_TRUE(network.data["SignalQuality"].isNil());
    EXPECT_EQ(network.data["RegistrationState"], qv::Value(0));
}

TEST_F(SerialGsmPty, SilentPortIsGivenUpInBoundWhileAnotherIsServed) {
    auto silent = modem(profileNamed("silent.json"));
    auto e1750 = modem(profileNamed("huawei-e1750.json"));
    ASSERT_TRUE(silent && e1750);
    qv::SerialGsmBackend backend(options(1.5, 2.0));

    Clock::time_point start = Clock::now();
    std::promise<qv::SerialGsmResult> silentDone;
    backend.perform(SerialGsmRequest::Identify, silent->portPath(), {},
                    [&](qv::SerialGsmResult r) { silentDone.set_value(std::move(r)); });
    EXPECT_EQ(backend.identifyDevice(e1750->portPath(), -1).deviceId, 320);
    double served = secondsSince(start);
    qv::SerialGsmResult gaveUp = silentDone.get_future().get();
    double silentCost = secondsSince(start);

    EXPECT_LT(served, 1.0) << "the silent port held the other one up";
    EXPECT_EQ(gaveUp.code, kGsmErrorNoResponse);
    EXPECT_GE(silentCost, 1.4);
    EXPECT_LT(silentCost, 2.5);
    // The probe is sent three times within its bound, for the first one may be lost.
    EXPECT_EQ(silent->commands(), (std::vector<std::string>{"AT", "AT", "AT"}));
}

TEST_F(SerialGsmPty, HangUpMidAnswerEndsTheRequest) {
    qvsim::ModemProfile profile = profileNamed("huawei-e1750.json");
    profile.hangUpAfter = 2;
    auto modemThatHangsUp = modem(profile);
    ASSERT_TRUE(modemThatHangsUp);
    qv::SerialGsmBackend backend(options());
    qv::SerialGsmResult result =
        backend.performAndWait(SerialGsmRequest::Identify, modemThatHangsUp->portPath());
    EXPECT_EQ(result.code, kGsmErrorPortUnavailable);
    EXPECT_NE(result.reason.find("hung up"), std::string::npos) << result.reason;
    EXPECT_TRUE(modemThatHangsUp->hungUp());
}

TEST_F(SerialGsmPty, BusyPortsAreRefusedAtOnceAndStaleLocksCleared) {
    auto e1750 = modem(profileNamed("huawei-e1750.json"));
    ASSERT_TRUE(e1750);
    const std::string port = e1750->portPath();
    qv::SerialGsmBackend backend(options());

    // A live process's lock: busy, and the lock stays.
    {
        std::ofstream lock(lockPathFor(port));
        lock << "  " << ::getppid() << "\n";
    }
    Clock::time_point start = Clock::now();
    qv::SerialGsmResult busy = backend.performAndWait(SerialGsmRequest::Identify, port);
    EXPECT_LT(secondsSince(start), 0.5);
    EXPECT_EQ(busy.code, kGsmErrorPortUnavailable);
    EXPECT_NE(busy.reason.find("busy"), std::string::npos) << busy.reason;
    EXPECT_TRUE(std::filesystem::exists(lockPathFor(port)));
    EXPECT_TRUE(e1750->commands().empty());

    // A dead process's lock is stale: removed, the port served, our own lock gone afterwards.
    {
        std::ofstream lock(lockPathFor(port), std::ios::trunc);
        lock << "   4194305\n";  // above the kernel's largest pid
    }
    EXPECT_EQ(backend.identifyDevice(port, -1).deviceId, 320);
    EXPECT_FALSE(std::filesystem::exists(lockPathFor(port)));

    // Another program holding the port exclusively.
    int holder = ::open(port.c_str(), O_RDWR | O_NOCTTY);
    ASSERT_GE(holder, 0);
    ASSERT_EQ(::flock(holder, LOCK_EX | LOCK_NB), 0);
    qv::SerialGsmResult held = backend.performAndWait(SerialGsmRequest::DeviceInfo, port);
    EXPECT_EQ(held.code, kGsmErrorPortUnavailable);
    EXPECT_NE(held.reason.find("busy"), std::string::npos) << held.reason;
    ::close(holder);
}

TEST_F(SerialGsmPty, ThingsThatAreNoModemPortsFailCleanly) {
    char file[] = "/tmp/qv-not-a-port-XXXXXX";
    int fd = ::mkstemp(file);
    ASSERT_GE(fd, 0);
    ::close(fd);
    qv::SerialGsmBackend backend(options());
    for (const std::string& path :
         {std::string("/dev/null"), std::string(file), std::string("/dev/cu.qvNoSuchPort"),
          std::string("/tmp"), std::string("relative")}) {
        Clock::time_point start = Clock::now();
        qv::SerialGsmResult result = backend.performAndWait(SerialGsmRequest::Identify, path);
        EXPECT_EQ(result.code, kGsmErrorPortUnavailable) << path;
        EXPECT_FALSE(result.reason.empty());
        EXPECT_LT(secondsSince(start), 0.5) << path;
    }
    ::unlink(file);
}

TEST_F(SerialGsmPty, RequestsInFlightAreAnsweredWhenTheBackendGoes) {
    auto silent = modem(profileNamed("silent.json"));
    ASSERT_TRUE(silent);
    auto promise = std::make_shared<std::promise<qv::GsmAnswer>>();
    {
        qv::SerialGsmBackend backend(options(5.0, 5.0));
        qv::GsmRequest request{320, silent->portPath(), qv::RunLoop::currentShared()};
        ASSERT_TRUE(backend.startGetNetworkInfo(
            request, [promise](qv::GsmAnswer answer) { promise->set_value(std::move(answer)); }));
        // Two requests for the same port: the second waits for the first.
        ASSERT_TRUE(backend.getDeviceInfo(request, [](qv::GsmAnswer) {}));
    }
    auto future = promise->get_future();
    ASSERT_EQ(future.wait_for(std::chrono::seconds(1)), std::future_status::ready);
    EXPECT_EQ(future.get().code, kGsmErrorNoResponse);
}

TEST_F(SerialGsmPty, QvdeviceModemCommand) {
    auto e1750 = modem(profileNamed("huawei-e1750.json"));
    ASSERT_TRUE(e1750);
    ToolRun identify = runQvdevice({"modem", e1750->portPath(), "identify", "--json"});
    ASSERT_EQ(identify.code, 0) << identify.err;
    qv::Json json = qv::Json::parse(identify.out);
    EXPECT_EQ(json["quorvelID"], 320);
    EXPECT_EQ(json["code"], 0);

    ToolRun network = runQvdevice({"modem", e1750->portPath(), "network"});
    ASSERT_EQ(network.code, 0) << network.err;
    EXPECT_NE(network.out.find("Operator: Vodafone.de"), std::string::npos) << network.out;
    EXPECT_NE(network.out.find("SignalQuality: 17"), std::string::npos);

    ToolRun info = runQvdevice({"modem", e1750->portPath(), "info", "--json"});
    ASSERT_EQ(info.code, 0) << info.err;
    EXPECT_EQ(qv::Json::parse(info.out)["answer"]["IMEI"], "353142030000001");

    ToolRun missing = runQvdevice({"modem", "qvNoSuchPort", "identify", "--timeout", "1"});
    EXPECT_EQ(missing.code, 1);
    EXPECT_NE(missing.err.find("/dev/qvNoSuchPort"), std::string::npos) << missing.err;

    EXPECT_EQ(runQvdevice({"modem", e1750->portPath(), "dial"}).code, 2);
    EXPECT_EQ(runQvdevice({"modem", e1750->portPath(), "info", "--timeout", "nan"}).code, 2);
    EXPECT_EQ(runQvdevice({"modem", e1750->portPath()}).code, 2);
}

}  // namespace
