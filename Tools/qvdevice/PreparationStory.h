// The device-preparation side of a simulated story (PreparationScenario.h) while it plays: the
// mount table the framework sees, the serial port enabler the application created, what the disk
// utility and the mode-switch tool do when the framework starts them, and the sticks that leave
// the bus and come back in their modem mode.
//
// Installs its seams (mount table, USB device access) when made and puts back what was there when
// destroyed; must go before the registry and the run loop it was given.
#pragma once

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Application/SeamInstallation.h"
#include "Foundation/MountedFileSystems.h"
#include "Foundation/Task.h"
#include "IOKit/RecordingUSBDeviceAccess.h"
#include "IOKit/Registry.h"
#include "IOKit/ScriptedFeeder.h"
#include "PreparationScenario.h"
#include "RunLoop/RunLoop.h"

class QVZTESerialPortsEnabler;

namespace qvdevice {

class PreparationStory {
  public:
    PreparationStory(const PreparationScenario& scenario, qv::Registry& registry,
                     qv::ScriptedFeeder& feeder, qv::RunLoop& loop, double origin);
    ~PreparationStory();
    PreparationStory(const PreparationStory&) = delete;
    PreparationStory& operator=(const PreparationStory&) = delete;

    // The application's part at the start, after it has started the observer: the enabler.
    void startApplication();

    // A program the framework started (already recorded as an event).
    void programStarted(const qv::RecordingTaskLauncher::Record& record);
    // A call on a USB device interface.
    void usbCall(const qv::RecordingUSBDeviceAccess::Call& call);

    // The devices' kernel names on the /dev paths that the mount table shows.
    static bool isDiskOrPartition(const std::string& device, const std::string& disk);

  private:
    void unmountDisk(const std::string& disk);
    // The stick whose driver CD is `disk`, switched when a mode switch names it.
    void driverDiskEjected(const std::string& disk);
    // Takes the stick off the bus now and puts its new form in its place later.
    void switchMode(io_registry_entry_t device);
    const PreparationScenario::ModeSwitch* modeSwitchFor(io_registry_entry_t device) const;
    std::vector<io_registry_entry_t> attachedUSBDevices() const;

    const PreparationScenario& scenario_;
    qv::Registry& registry_;
    qv::ScriptedFeeder& feeder_;
    qv::RunLoop& loop_;
    double origin_;
    std::shared_ptr<qv::FixedMountedFileSystems> mounts_;
    std::shared_ptr<qv::RecordingUSBDeviceAccess> usb_;
    std::optional<qv::SeamInstallation> installation_;  // the two above, while the story plays
    std::shared_ptr<QVZTESerialPortsEnabler> enabler_;
    std::vector<std::shared_ptr<qv::Timer>> timers_;
    std::set<io_registry_entry_t> switching_;
};

}  // namespace qvdevice
