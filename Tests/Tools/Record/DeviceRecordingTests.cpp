// What a recording says about how the live run used the framework reaches `simulate` as the same
// options: the scenario it writes is read back by the scenario reader, not compared as text.
#include <gtest/gtest.h>

#include "IOKit/Registry.h"
#include "qvdevice/DeviceRecording.h"
#include "qvdevice/SimulationScenario.h"

namespace {

using qvdevice::DeviceRecording;
using qvdevice::DeviceRecordingOptions;
using qvdevice::SimulationScenario;

std::optional<SimulationScenario> replayed(DeviceRecordingOptions options, double seconds) {
    qv::Registry registry;
    qv::Value properties{qv::Dictionary{}};
    properties.set("idVendor", 0x12d1);
    properties.set("idProduct", 0x15ff);
    registry.addEntry(IO_OBJECT_NULL, "IOUSBDevice", "IOUSBDevice", properties);
    DeviceRecording recording(registry, options);
    recording.registryChanged(0.0);
    recording.setRunningApplications({"org.example.dialer"});
    std::string error;
    auto scenario = SimulationScenario::fromJson(recording.scenario(seconds), &error);
    EXPECT_TRUE(scenario) << error;
    return scenario;
}

TEST(DeviceRecording, TheRunsWayOfUsingTheFrameworkIsReplayedAsItWas) {
    DeviceRecordingOptions generic;
    generic.genericMonitor = true;
    generic.defaultDevice = 1;
    auto scenario = replayed(generic, 8.2483694);
    ASSERT_TRUE(scenario);
    EXPECT_TRUE(scenario->options.genericMonitor);
    EXPECT_EQ(scenario->options.defaultDevice, 1);
    EXPECT_TRUE(scenario->options.startQueue);
    EXPECT_EQ(scenario->options.runningApplications, std::set<std::string>{"org.example.dialer"});
    EXPECT_DOUBLE_EQ(scenario->options.until.value_or(0.0), 8.248369);  // to the microsecond
    EXPECT_EQ(scenario->timeline.events().size(), 1u);

    // Without those options the replay uses the standard monitor and chooses no device.
    auto standard = replayed(DeviceRecordingOptions{}, -1.0);
    ASSERT_TRUE(standard);
    EXPECT_FALSE(standard->options.genericMonitor);
    EXPECT_FALSE(standard->options.defaultDevice);
    EXPECT_EQ(standard->options.until.value_or(-1.0), 0.0);  // a negative length is none
}

}  // namespace
