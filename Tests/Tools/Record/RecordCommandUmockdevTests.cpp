// `qvdevice record` on fake sticks (umockdev's sysfs, the modem simulator on a pty): the recording
// replays through `simulate` with the application events of the live run, the umockdev description
// replays through umockdev-run, identifiers are masked, and an interrupted recording still leaves
// a whole file. Needs umockdev's preload library: ctest runs this under umockdev-wrapper; anywhere
// else it skips.
#ifdef QV_HAVE_UMOCKDEV

#include <gio/gio.h>
#include <gtest/gtest.h>
#include <umockdev.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "Application/PlatformFactory.h"
#include "Application/QVPrioQueue.h"
#include "Application/ScriptedDevicePlatform.h"
#include "Events/QVDeviceNotificationCenter.h"
#include "Foundation/JsonValue.h"
#include "IOKit/Registry.h"
#include "RunLoop/GLibRunLoop.h"
#include "Support/ToolRunner.h"
#include "Support/UmockdevSticks.h"
#include "Support/UmockdevTest.h"
#include "qvdevice/IdentifierMasker.h"
#include "qvdevice/SimulationScenario.h"
#include "qvdevice/Simulator.h"

#ifdef QV_MODEM_SIMULATOR_PATH
constexpr const char* kModemSimulatorPath = QV_MODEM_SIMULATOR_PATH;
#else
constexpr const char* kModemSimulatorPath = "";
#endif

namespace {

// What the application heard, as comparable text: the call and the whole device record.
std::vector<std::string> applicationCalls(const std::vector<qv::Json>& lines) {
    std::vector<std::string> calls;
    for (const auto& line : lines) {
        if (line["kind"] != "application") {
            continue;
        }
        // The whole line without its time; appended, not "a" + b (GCC 12 warns falsely).
        qv::Json copy = line;
        copy.erase("t");
        std::string call = copy.dump();
        calls.push_back(call);
    }
    return calls;
}

std::vector<qv::Json> jsonLines(const std::string& text) {
    std::vector<qv::Json> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(qv::Json::parse(line));
    }
    return lines;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

class RecordCommandUmockdev : public UmockdevTest {
  protected:
    void SetUp() override {
        UmockdevTest::SetUp();
        if (!testbedReady()) {
            return;
        }
        ready_ = true;
        context_ = g_main_context_new();
        g_main_context_push_thread_default(context_);
        qv::Registry::resetShared();
        qv::PlatformFactory::resetForTesting();
        qv::PlatformFactory::install(nullptr);  // the live platform, as on a real machine
        directory_ = std::filesystem::temp_directory_path() /
                     ("qv-record-" + std::to_string(::getpid()) + "-" +
                      ::testing::UnitTest::GetInstance()->current_test_info()->name());
        std::filesystem::remove_all(directory_);
        std::filesystem::create_directories(directory_);
    }

    void TearDown() override {
        if (ready_) {
            qv::PlatformFactory::install(std::make_shared<qv::ScriptedDevicePlatform>());
            QVDeviceNotificationCenter::defaultDeviceNotificationCenter()->removeAllNotifications();
            QVPrioQueue::resetSharedForTesting();
            QVDeviceNotificationCenter::resetSharedForTesting();
            qv::Registry::resetShared();
            g_main_context_pop_thread_default(context_);
            g_main_context_unref(context_);
            std::filesystem::remove_all(directory_);
        }
        UmockdevTest::TearDown();
    }

    // Runs `action` on the recording's loop `seconds` after the tool starts it.
    void at(double seconds, std::function<void()> action) {
        auto* call = new std::function<void()>(std::move(action));
        GSource* source = g_timeout_source_new(static_cast<guint>(seconds * 1000));
        g_source_set_callback(
            source,
            [](gpointer data) -> gboolean {
                (*static_cast<std::function<void()>*>(data))();
                return G_SOURCE_REMOVE;
            },
            call, [](gpointer data) { delete static_cast<std::function<void()>*>(data); });
        g_source_attach(source, context_);
        g_source_unref(source);
    }

    // The scenario replayed through `simulate`, its lines as JSON.
    static std::vector<qv::Json> replay(const std::string& scenarioPath) {
        std::string error;
        auto scenario = qvdevice::SimulationScenario::fromFile(scenarioPath, &error);
        EXPECT_TRUE(scenario) << error;
        if (!scenario) {
            return {};
        }
        auto result = qvdevice::Simulator::run(*scenario);
        EXPECT_TRUE(result.ok) << result.error;
        qv::PlatformFactory::install(nullptr);
        std::vector<qv::Json> lines;
        for (const auto& event : result.events) {
            lines.push_back(qv::Json::parse(event.jsonLine()));
        }
        return lines;
    }

    // `qvdevice run` on a machine made of the umockdev description alone, as a user replays a
    // report with umockdev-run; its lines as JSON, or nothing when umockdev-run is missing.
    static std::vector<qv::Json> replayUnderUmockdev(const std::string& description,
                                                     std::string* error) {
        gchar* umockdevRun = g_find_program_in_path("umockdev-run");
        if (umockdevRun == nullptr) {
            *error = "umockdev-run is not installed";
            return {};
        }
        // A machine of its own: not this test's testbed, whose preload and root the child would
        // otherwise inherit.
        gchar** environment = g_get_environ();
        environment = g_environ_unsetenv(environment, "LD_PRELOAD");
        environment = g_environ_unsetenv(environment, "UMOCKDEV_DIR");
        std::vector<std::string> arguments = {umockdevRun,      "-d",    description, "--",
                                              QV_QVDEVICE_PATH, "run",   "--for",     "3",
                                              "--no-modem",     "--json"};
        g_free(umockdevRun);
        std::vector<gchar*> argv;
        for (std::string& argument : arguments) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);
        gchar* out = nullptr;
        gchar* err = nullptr;
        gint status = 0;
        GError* spawnError = nullptr;
        bool spawned = g_spawn_sync(nullptr, argv.data(), environment, G_SPAWN_DEFAULT, nullptr,
                                    nullptr, &out, &err, &status, &spawnError);
        g_strfreev(environment);
        std::vector<qv::Json> lines;
        if (!spawned || !g_spawn_check_wait_status(status, nullptr)) {
            *error = spawnError != nullptr ? spawnError->message : (err != nullptr ? err : "");
        } else {
            lines = jsonLines(out);
        }
        g_clear_error(&spawnError);
        g_free(out);
        g_free(err);
        return lines;
    }

    std::string path(const std::string& name) const { return (directory_ / name).string(); }

    bool ready_ = false;
    GMainContext* context_ = nullptr;
    std::filesystem::path directory_;
};

TEST_F(RecordCommandUmockdev, ReplaysAStickPresentAtStartAndOnePluggedAndUnpluggedWhileRecording) {
    plugFakeE1750(testbed_, "1-2", 0);
    std::string second;
    at(0.6, [&] { second = plugFakeE1750(testbed_, "1-3", 3, "77AA00BB11CC"); });
    at(2.2, [&] { umockdev_testbed_uevent(testbed_, second.c_str(), "remove"); });
    const std::string out = path("story.json");
    ToolRun run = runQvdevice({"record", out, "--for", "4", "--json", "--keep-identifiers",
                               "--umockdev", path("story.umockdev")});
    ASSERT_EQ(run.code, 0) << run.err;

    // The story: the first stick at 0, the second added and removed at the times they were seen.
    qv::Json scenario = qv::Json::parse(readFile(out));
    const qv::Json& timeline = scenario["timeline"];
    ASSERT_EQ(timeline.size(), 3u) << timeline.dump(1);
    EXPECT_EQ(timeline[0]["at"], 0.0);
    EXPECT_EQ(timeline[0]["add"]["entry"]["children"].size(), 3u);
    EXPECT_GT(timeline[1]["at"].get<double>(), 0.5);
    EXPECT_EQ(timeline[2]["remove"], timeline[1]["add"]["entry"]["id"]);
    EXPECT_GT(timeline[2]["at"].get<double>(), timeline[1]["at"].get<double>());
    EXPECT_TRUE(scenario["options"]["startQueue"].get<bool>());
    EXPECT_FALSE(scenario.contains("modems"));

    // The same application events, in the same order, with the same devices.
    auto live = applicationCalls(jsonLines(run.out));
    auto replayed = applicationCalls(replay(out));
    EXPECT_EQ(std::count_if(live.begin(), live.end(),
                            [](const std::string& call) {
                                return call.find("\"noteDeviceBecameAvailable:\"") !=
                                       std::string::npos;
                            }),
              2)
        << run.out;
    EXPECT_EQ(replayed, live);

    // The umockdev description holds both sticks, readable as umockdev-record writes it.
    std::string description = readFile(path("story.umockdev"));
    EXPECT_NE(description.find("P: /devices/"), std::string::npos) << description;
    EXPECT_NE(description.find("A: idVendor=12d1"), std::string::npos);
    EXPECT_NE(description.find("E: DEVTYPE=usb_interface"), std::string::npos);
    EXPECT_NE(description.find("ttyUSB5"), std::string::npos);
    EXPECT_NE(description.find("A: serial=4C1D9B7E0F31"), std::string::npos);
    UMockdevTestbed* reloaded = umockdev_testbed_new();
    GError* error = nullptr;
    EXPECT_TRUE(umockdev_testbed_add_from_string(reloaded, description.c_str(), &error))
        << (error != nullptr ? error->message : "");
    g_clear_error(&error);
    g_object_unref(reloaded);

    // Replayed live by umockdev: both recorded sticks are there from the start (the second was
    // unplugged, so the replay announces it without its unplug), with the records the live run
    // gave them.
    std::string replayError;
    std::vector<qv::Json> replayedLive = replayUnderUmockdev(path("story.umockdev"), &replayError);
    if (replayError == "umockdev-run is not installed") {
        GTEST_SKIP() << replayError;
    }
    ASSERT_EQ(replayError, "");
    // The testbed plays every uevent though no udevd runs: neither run warns that later plugs
    // go unseen.
    EXPECT_EQ(run.out.find("udev is not running"), std::string::npos) << run.out;
    for (const qv::Json& line : replayedLive) {
        EXPECT_EQ(line.dump().find("udev is not running"), std::string::npos) << line.dump();
    }
    auto availableOnly = [](std::vector<std::string> calls) {
        std::erase_if(calls, [](const std::string& call) {
            return call.find("\"noteDeviceBecameAvailable:\"") == std::string::npos;
        });
        std::sort(calls.begin(), calls.end());
        return calls;
    };
    EXPECT_EQ(availableOnly(applicationCalls(replayedLive)), availableOnly(live));
}

TEST_F(RecordCommandUmockdev, MasksEveryIdentifierTheSameWayAcrossTheFilesItWrites) {
    const std::string simulator = kModemSimulatorPath;
    if (simulator.empty()) {
        GTEST_SKIP() << "the modem simulator (qv-modem-simulator) is not built";
    }
    GError* error = nullptr;
    const std::string profile = QV_SOURCE_DIR "/Tools/ModemSimulator/profiles/huawei-e1750.json";
    const char* argv[] = {simulator.c_str(), profile.c_str(), nullptr};
    GSubprocess* modem = g_subprocess_newv(argv, G_SUBPROCESS_FLAGS_STDOUT_PIPE, &error);
    ASSERT_NE(modem, nullptr) << (error != nullptr ? error->message : "");
    GDataInputStream* lines = g_data_input_stream_new(g_subprocess_get_stdout_pipe(modem));
    gchar* pty = g_data_input_stream_read_line(lines, nullptr, nullptr, nullptr);
    ASSERT_NE(pty, nullptr);
    std::string ptyPath = pty;
    g_free(pty);
    // Interface 2's tty is the E1750's control port; the fake /dev holds both names for it.
    std::string dev = std::string(umockdev_testbed_get_root_dir(testbed_)) + "/dev";
    g_mkdir_with_parents(dev.c_str(), 0755);
    for (const char* name : {"/ttyUSB2", "/cu.ttyUSB2"}) {
        std::string link = dev + name;
        std::remove(link.c_str());
        ASSERT_EQ(symlink(ptyPath.c_str(), link.c_str()), 0);
    }
    plugFakeE1750(testbed_, "1-2", 0, "4C1D9B7E0F31");

    const std::string out = path("masked.json");
    ToolRun run = runQvdevice({"record", out, "--for", "6", "--json", "--modem", "--default-device",
                               "0", "--umockdev", path("masked.umockdev")});
    g_subprocess_force_exit(modem);
    g_subprocess_wait(modem, nullptr, nullptr);
    g_object_unref(lines);
    g_object_unref(modem);
    ASSERT_EQ(run.code, 0) << run.err;

    const std::string scenarioText = readFile(out);
    const std::string umockdevText = readFile(path("masked.umockdev"));
    std::string profileText;
    for (const auto& entry : std::filesystem::directory_iterator(directory_)) {
        if (entry.path().string().ends_with(".modem.json")) {
            profileText += readFile(entry.path().string());
        }
    }
    ASSERT_FALSE(profileText.empty()) << "no modem-simulator profile written";
    // The simulator's IMEI, IMSI and ICCID and the stick's serial number appear nowhere.
    for (const char* identifier :
         {"353142030000001", "262021234567890", "89490200001234567890", "4C1D9B7E0F31"}) {
        EXPECT_EQ(scenarioText.find(identifier), std::string::npos) << identifier;
        EXPECT_EQ(profileText.find(identifier), std::string::npos) << identifier;
        EXPECT_EQ(umockdevText.find(identifier), std::string::npos) << identifier;
    }
    // The masked IMEI is an IMEI, and the same in the scenario's answers and the profile's bytes.
    qv::Json scenario = qv::Json::parse(scenarioText);
    const qv::Json& port = scenario["modems"]["/dev/cu.ttyUSB2"];
    ASSERT_TRUE(port["deviceInfo"].is_object()) << scenarioText;
    std::string imei = port["deviceInfo"]["IMEI"];
    EXPECT_EQ(imei.size(), 15u);
    EXPECT_TRUE(qvdevice::IdentifierMasker::luhnValid(imei)) << imei;
    EXPECT_NE(profileText.find(imei), std::string::npos) << profileText;
    EXPECT_EQ(port["groundInit"], 7);  // the application initialised the stick
    EXPECT_NE(umockdevText.find("A: serial="), std::string::npos);

    // Replayed, the application hears what it heard live, masked values aside.
    auto replayed = applicationCalls(replay(out));
    auto live = applicationCalls(jsonLines(run.out));
    ASSERT_EQ(replayed.size(), live.size()) << run.out;
    for (std::size_t i = 0; i < live.size(); ++i) {
        qv::Json a = qv::Json::parse(live[i]);
        qv::Json b = qv::Json::parse(replayed[i]);
        EXPECT_EQ(a["call"], b["call"]);
        EXPECT_EQ(a["device"], b["device"]);
    }
}

TEST_F(RecordCommandUmockdev, AnInterruptedRecordingStillWritesAWholeScenario) {
    plugFakeE1750(testbed_, "1-2", 0);
    const std::string out = path("interrupted.json");
    {
        std::ofstream old(out);
        old << "{\"timeline\": []}\n";  // a good file from before
    }
    at(0.8, [] { std::raise(SIGINT); });
    ToolRun run = runQvdevice({"record", out, "--json"});
    ASSERT_EQ(run.code, 0) << run.err;
    std::string error;
    auto scenario = qvdevice::SimulationScenario::fromFile(out, &error);
    ASSERT_TRUE(scenario) << error;
    EXPECT_EQ(scenario->timeline.events().size(), 1u);
    EXPECT_GE(*scenario->options.until, 0.7);
    EXPECT_LT(*scenario->options.until, 60.0);
    std::size_t files = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(directory_)) {
        ++files;
    }
    EXPECT_EQ(files, 1u);  // no temporary file left beside it

    // Usage mistakes are refused before anything runs, and the file stays as it was.
    const std::string before = readFile(out);
    for (const auto& arguments :
         std::vector<std::vector<std::string>>{{"record", out, "--device", "12d1"},
                                               {"record", out, "--device", "xyz:1"},
                                               {"record", path("missing/dir.json")},
                                               {"record", directory_.string()},
                                               {"record", out, "--for", "-1"}}) {
        ToolRun refused = runQvdevice(arguments);
        EXPECT_EQ(refused.code, 2) << arguments.back();
        EXPECT_FALSE(refused.err.empty());
    }
    EXPECT_EQ(readFile(out), before);
}

}  // namespace

#endif  // QV_HAVE_UMOCKDEV
