// Stories of sticks that start in storage mode: the serial port enabler, the disk utility and the
// mode-switch tool as the simulator plays them, mounts in the story, and sticks that come back in
// their modem mode.
#include <gtest/gtest.h>

#include <fstream>

#include "StoryBuilder.h"
#include "qvdevice/PreparationStory.h"
#include "qvdevice/SimulationScenario.h"

using qvtest::eventsOf;
using qvtest::firstTime;
using qvtest::hasLogPrefix;
using qvtest::StickSpec;
using qvtest::StoryBuilder;

namespace {

StickSpec storageStick(int vendor, int product, const std::string& cd = "sr0",
                       long long location = 0x1A100000, const std::string& id = "stick") {
    StickSpec stick;
    stick.id = id;
    stick.vendorID = vendor;
    stick.productID = product;
    stick.locationID = location;
    stick.productName = "Storage";
    stick.cdrom = cd;
    return stick;
}

qv::Json entryOf(const StickSpec& stick) {
    return StoryBuilder().plug(0.0, stick).json()["timeline"][0]["add"]["entry"];
}

qv::Json modeSwitch(int vendor, int product, double after, const StickSpec& becomes) {
    return {
        {"vendor", vendor}, {"product", product}, {"after", after}, {"becomes", entryOf(becomes)}};
}

std::vector<std::vector<std::string>> execArguments(const qvdevice::SimulationResult& result) {
    std::vector<std::vector<std::string>> argvs;
    for (const auto& event : eventsOf(result, "exec")) {
        auto argv = event.fields["argv"].get<std::vector<std::string>>();
        // The program's directory is the build's or the installation's: only its name counts.
        argv[0] = argv[0].substr(argv[0].rfind('/') + 1);
        argvs.push_back(argv);
    }
    return argvs;
}

std::vector<std::string> stdoutLines(const qvdevice::SimulationResult& result) {
    std::vector<std::string> lines;
    for (const auto& event : eventsOf(result, "stdout")) {
        lines.push_back(event.fields["message"].get<std::string>());
    }
    return lines;
}

qvdevice::SimulationResult play(qv::Json scenario, double until) {
    std::string error;
    auto parsed = qvdevice::SimulationScenario::fromJson(scenario, &error);
    EXPECT_TRUE(parsed) << error;
    if (!parsed) {
        return {};
    }
    return qvdevice::Simulator::run(*parsed, until);
}

// The time of the first named-log line that starts with `prefix`; -1 when there is none.
double logTime(const qvdevice::SimulationResult& result, const std::string& prefix) {
    for (const auto& event : eventsOf(result, "log")) {
        if (event.fields["message"].get<std::string>().starts_with(prefix)) {
            return event.t;
        }
    }
    return -1.0;
}

using Argvs = std::vector<std::vector<std::string>>;

}  // namespace

TEST(PreparationStory, ZTEStickWithAMountedCDIsEjectedAndComesBackAsAModem) {
    // Comes back as a K3805-Z, which the test database knows.
    StickSpec k3805;
    k3805.id = "modem";
    k3805.vendorID = 0x19D2;
    k3805.productID = 0x1002;
    k3805.ttys = {"ttyACM0", "ttyACM1", "ttyACM2"};
    k3805.network = "wwan0";
    qv::Json scenario =
        StoryBuilder()
            .plug(1.0, storageStick(0x19D2, 0x2000))
            .option("enabler", {{"ejectSecondaryDisk", false}})
            .option("mounts", {{"sr0", "/media/ZTE Modem"}})
            .option("modeSwitches", qv::Json::array({modeSwitch(0x19D2, 0x2000, 3.0, k3805)}))
            .json();
    auto result = play(scenario, 40.0);
    ASSERT_TRUE(result.ok) << result.error;
    EXPECT_EQ(execArguments(result), (Argvs{{"qv-unmount-disk", "unmountDisk", "force", "sr0"},
                                            {"qv-unmount-disk", "eject", "sr0"}}));
    EXPECT_DOUBLE_EQ(firstTime(result, "exec"), 2.0);
    EXPECT_TRUE(hasLogPrefix(result, "Enabling SerialPorts for device: "));
    EXPECT_TRUE(stdoutLines(result).empty());
    // Gone at the switch, back three seconds later in modem mode, and recognised.
    auto available = eventsOf(result, "application", "noteDeviceBecameAvailable:");
    ASSERT_EQ(available.size(), 1u);
    EXPECT_GE(available[0].t, 5.0);
    EXPECT_FALSE(hasLogPrefix(result, "Timeout handling device: "));
}

TEST(PreparationStory, HuaweiQuickStartStickRunsTheToolAndBecomesAvailable) {
    qv::Json scenario =
        StoryBuilder()
            .plug(1.0, storageStick(0x12D1, 0x1F15))
            .option("enabler", {{"ejectSecondaryDisk", true}})
            .option("mounts", {{"sr0", "/media/HUAWEI"}})
            .option(
                "modeSwitches",
                qv::Json::array({modeSwitch(0x12D1, 0x1F15, 4.0, qvtest::huaweiE1750("modem"))}))
            .json();
    auto result = play(scenario, 40.0);
    ASSERT_TRUE(result.ok) << result.error;
    auto argvs = execArguments(result);
    ASSERT_FALSE(argvs.empty());
    EXPECT_EQ(argvs[0], (std::vector<std::string>{"CardPrepTool", "/pid=,1f15"}));
    for (const auto& argv : argvs) {
        EXPECT_NE(argv[0], "qv-unmount-disk") << "no disk utility for a quick-start stick";
    }
    EXPECT_DOUBLE_EQ(firstTime(result, "application", "noteDeviceBecameAvailable:"), 7.0);
}

TEST(PreparationStory, ACDThatIsNeverMountedTimesOutUntilItIsMountedByTheStory) {
    qv::Json scenario = StoryBuilder()
                            .plug(1.0, storageStick(0x19D2, 0x1001))
                            .plug(1.0, storageStick(0x19D2, 0x1171, "sr1", 0x1B100000, "other"))
                            .option("enabler", {{"ejectSecondaryDisk", false}})
                            .json();
    scenario["timeline"].push_back({{"at", 10.5}, {"mount", {{"disk", "sr1"}, {"path", "/m"}}}});
    auto result = play(scenario, 45.0);
    ASSERT_TRUE(result.ok) << result.error;
    EXPECT_EQ(execArguments(result), (Argvs{{"qv-unmount-disk", "unmountDisk", "force", "sr1"},
                                            {"qv-unmount-disk", "eject", "sr1"}}));
    EXPECT_DOUBLE_EQ(firstTime(result, "exec"), 11.0);
    // Mounted at 10.5, switched at the next tick; the other one is reported once it is older than
    // 30 seconds, at the tick of 32.
    EXPECT_DOUBLE_EQ(logTime(result, "Enabling SerialPorts for device: "), 11.0);
    EXPECT_DOUBLE_EQ(logTime(result, "Timeout handling device: "), 32.0);
}

TEST(PreparationStory, OptionStickIsReEnumeratedWithoutPortsAndPrintsTheWalk) {
    StickSpec option = storageStick(0x0AF0, 0x7501);
    StickSpec withPorts = storageStick(0x0AF0, 0x7501, "sr1", 0x1B100000);
    withPorts.id = "ported";
    withPorts.ttys = {"ttyHS0"};
    StickSpec modem = qvtest::huaweiE1750("modem");
    modem.vendorID = 0x0AF0;
    modem.productID = 0x7211;
    qv::Json scenario =
        StoryBuilder()
            .plug(1.0, option)
            .plug(20.0, withPorts)
            .option("enabler", {{"ejectSecondaryDisk", false}})
            .option("mounts", {{"sr0", "/media/a"}})
            .option("modeSwitches", qv::Json::array({modeSwitch(0x0AF0, 0x7501, 2.0, modem)}))
            .json();
    scenario["timeline"].push_back({{"at", 20.0}, {"mount", {{"disk", "sr1"}, {"path", "/b"}}}});
    auto result = play(scenario, 30.0);
    ASSERT_TRUE(result.ok) << result.error;
    auto lines = stdoutLines(result);
    ASSERT_EQ(lines.size(), 1u);  // only the stick without ports, once
    EXPECT_TRUE(lines[0].starts_with("Found device for reEnumerate 0x"));
    EXPECT_EQ(execArguments(result).size(), 4u);
    // The re-enumerated stick left the bus: the ported one, plugged later, was not walked.
    EXPECT_DOUBLE_EQ(eventsOf(result, "stdout")[0].t, 2.0);
}

TEST(PreparationStory, SecondaryDiskIsEjectedWhenAskedForAndTheStoryUnmountsIt) {
    StickSpec zte = storageStick(0x19D2, 0x2000);
    qv::Json scenario = StoryBuilder()
                            .plug(1.0, zte)
                            .option("enabler", {{"ejectSecondaryDisk", true}})
                            .option("mounts", {{"sr0", "/media/cd"}, {"sdb1", "/media/card"}})
                            .json();
    scenario["timeline"][0]["add"]["entry"]["children"].push_back(
        {{"id", "card"},
         {"class", "IOMedia"},
         {"properties", {{"BSD Name", "sdb"}, {"Leaf", false}}}});
    // A second stick whose card the story unmounts before the enabler looks.
    qv::Json second =
        StoryBuilder().plug(5.0, storageStick(0x19D2, 0x2000, "sr1", 2, "second")).json();
    qv::Json entry = second["timeline"][0]["add"]["entry"];
    entry["children"].push_back({{"id", "card2"},
                                 {"class", "IOMedia"},
                                 {"properties", {{"BSD Name", "sdc"}, {"Leaf", false}}}});
    scenario["timeline"].push_back({{"at", 5.0}, {"add", {{"parent", nullptr}, {"entry", entry}}}});
    scenario["timeline"].push_back({{"at", 5.0}, {"mount", {{"disk", "sr1"}, {"path", "/c"}}}});
    scenario["timeline"].push_back({{"at", 5.0}, {"mount", {{"disk", "sdc1"}, {"path", "/d"}}}});
    scenario["timeline"].push_back({{"at", 5.5}, {"unmount", "sdc"}});
    auto result = play(scenario, 10.0);
    ASSERT_TRUE(result.ok) << result.error;
    EXPECT_EQ(execArguments(result), (Argvs{{"qv-unmount-disk", "unmountDisk", "force", "sr0"},
                                            {"qv-unmount-disk", "eject", "sr0"},
                                            {"qv-unmount-disk", "unmountDisk", "force", "sdb"},
                                            {"qv-unmount-disk", "eject", "sdb"},
                                            {"qv-unmount-disk", "unmountDisk", "force", "sr1"},
                                            {"qv-unmount-disk", "eject", "sr1"}}));
    std::size_t secondaryLines = 0;
    for (const auto& event : eventsOf(result, "log")) {
        secondaryLines += event.fields["message"].get<std::string>().starts_with(
            "Eject secondary disk for device: ");
    }
    EXPECT_EQ(secondaryLines, 1u);
}

TEST(PreparationStory, TheShippedExampleSwitchesAHuaweiStickIntoAnAvailableModem) {
    std::string error;
    auto scenario = qvdevice::SimulationScenario::fromFile(
        QV_SOURCE_DIR "/Examples/huawei-storage-mode-switch.json", &error);
    ASSERT_TRUE(scenario) << error;
    auto result = qvdevice::Simulator::run(*scenario);
    ASSERT_TRUE(result.ok) << result.error;
    auto argvs = execArguments(result);
    ASSERT_FALSE(argvs.empty());
    EXPECT_EQ(argvs[0], (std::vector<std::string>{"CardPrepTool", "/pid=,1f15"}));
    EXPECT_EQ(eventsOf(result, "application", "noteDeviceBecameAvailable:").size(), 1u);
    EXPECT_FALSE(eventsOf(result, "application", "noteDeviceDidRecognize:").empty());
    EXPECT_FALSE(hasLogPrefix(result, "Timeout handling device: "));
}

TEST(PreparationStory, BadPreparationOptionsAndEventsAreRefusedNamingThePlace) {
    auto refusal = [](qv::Json scenario) {
        std::string error;
        EXPECT_FALSE(qvdevice::SimulationScenario::fromJson(scenario, &error));
        return error;
    };
    qv::Json base = {{"timeline", qv::Json::array()}};
    auto with = [&](const std::string& key, qv::Json value) {
        qv::Json scenario = base;
        scenario["options"][key] = std::move(value);
        return scenario;
    };
    EXPECT_EQ(refusal(with("enabler", {{"ejectSecondaryDisk", 1}})),
              "options.enabler.ejectSecondaryDisk: must be true or false");
    EXPECT_EQ(refusal(with("enabler", {{"eject", true}})),
              "options.enabler: unknown key \"eject\"");
    EXPECT_EQ(refusal(with("mounts", {{"../sda", "/m"}})).substr(0, 15), "options.mounts:");
    EXPECT_EQ(refusal(with("mounts", {{"sdb1", "relative"}})),
              "options.mounts.sdb1: must be an absolute path");
    EXPECT_EQ(refusal(with("modeSwitches", qv::Json::array({{{"vendor", 1}, {"product", 2}}}))),
              "options.modeSwitches[0]: needs vendor, product and becomes");
    EXPECT_EQ(refusal(with("modeSwitches",
                           qv::Json::array({{{"vendor", 70000}, {"product", 2}, {"becomes", 1}}}))),
              "options.modeSwitches[0].vendor: must be a USB ID from 0 to 65535");
    std::string entryError = refusal(
        with("modeSwitches",
             qv::Json::array({{{"vendor", 1}, {"product", 2}, {"becomes", {{"id", "x"}}}}})));
    EXPECT_TRUE(entryError.starts_with("options.modeSwitches[0].becomes")) << entryError;

    // Registry events keep their place in messages though the mount events are taken out.
    qv::Json timeline = qv::Json::array(
        {{{"at", 1}, {"mount", {{"disk", "sr0"}, {"path", "/m"}}}}, {{"at", 2}, {"remove", "x"}}});
    std::string error = refusal({{"timeline", timeline}});
    EXPECT_TRUE(error.starts_with("timeline[1]")) << error;
    EXPECT_EQ(refusal({{"timeline", qv::Json::array({{{"at", 1}, {"unmount", "a/b"}}})}}),
              "timeline[0].unmount: must be a kernel disk name such as \"sdb1\" or \"sr0\"");
    EXPECT_EQ(refusal({{"timeline", qv::Json::array({{{"at", 1}, {"mount", {{"disk", "sr0"}}}}})}}),
              "timeline[0].mount: must be {\"disk\": NAME, \"path\": PATH}");
}

TEST(PreparationStory, TheStorysUnmountTakesTheDiskAndItsPartitionsOnly) {
    using qvdevice::PreparationStory;
    EXPECT_TRUE(PreparationStory::isDiskOrPartition("/dev/sdb", "sdb"));
    EXPECT_TRUE(PreparationStory::isDiskOrPartition("/dev/sdb12", "sdb"));
    EXPECT_TRUE(PreparationStory::isDiskOrPartition("/dev/mmcblk0p1", "mmcblk0"));
    EXPECT_FALSE(PreparationStory::isDiskOrPartition("/dev/mmcblk01", "mmcblk0"));
    EXPECT_FALSE(PreparationStory::isDiskOrPartition("/dev/sdb10", "sdb1"));
    EXPECT_FALSE(PreparationStory::isDiskOrPartition("/dev/sdbx", "sdb"));
    EXPECT_FALSE(PreparationStory::isDiskOrPartition("/dev/sd", "sdb"));
    EXPECT_FALSE(PreparationStory::isDiskOrPartition("tmpfs", "sdb"));
}

// CardPrepTool switches every attached Huawei stick with the product ID it is given, as the real
// tool does, and no stick of another maker that happens to share the product ID.
TEST(PreparationStory, TheModeSwitchToolSwitchesEveryHuaweiStickWithTheProductID) {
    StickSpec foreign = storageStick(0x19D2, 0x1F15, "sr2", 0x1A300000, "foreign");
    StickSpec first = storageStick(0x12D1, 0x1F15, "sr0", 0x1A100000, "first");
    StickSpec second = storageStick(0x12D1, 0x1F15, "sr1", 0x1A200000, "second");
    StickSpec k3805;
    k3805.id = "foreign-modem";
    k3805.vendorID = 0x19D2;
    k3805.productID = 0x1002;
    k3805.ttys = {"ttyACM0", "ttyACM1", "ttyACM2"};
    qv::Json scenario =
        StoryBuilder()
            .plug(0.5, foreign)
            .plug(1.0, first)
            .plug(1.0, second)
            .option("enabler", {{"ejectSecondaryDisk", false}})
            .option("mounts", {{"sr0", "/media/HUAWEI"}, {"sr1", "/media/HUAWEI1"}})
            .option("modeSwitches",
                    qv::Json::array({modeSwitch(0x12D1, 0x1F15, 1.0, qvtest::huaweiE1750("modem")),
                                     modeSwitch(0x19D2, 0x1F15, 1.0, k3805)}))
            .json();
    auto result = play(scenario, 40.0);
    ASSERT_TRUE(result.ok) << result.error;
    EXPECT_EQ(execArguments(result),
              (Argvs{{"CardPrepTool", "/pid=,1f15"}, {"CardPrepTool", "/pid=,1f15"}}));
    const auto available = eventsOf(result, "application", "noteDeviceBecameAvailable:");
    ASSERT_EQ(available.size(), 2u) << "both Huawei sticks came back as modems";
    for (const auto& event : available) {
        EXPECT_EQ(event.device()["_quorvelID"], 320);
        EXPECT_DOUBLE_EQ(event.t, 4.0);
    }
}
