// QVDriverDiskEjector: removes the read-only driver CD that many modem sticks show first, once the
// stick's serial ports or network interface have appeared. It subscribes to nothing: the device
// monitor hands it devices with addDevice(), and the examination timer offers each one every second
// until its CD is unmounted or the handling time-out expires.
//
// The unmount runs one second after the decision, on the same run loop, through the disk utility
// (on Linux our own "qv-unmount-disk" from the framework's resources) with "unmountDisk" and the
// CD's kernel name. It is started and not waited for.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Events/QVDeviceNotificationReceiver.h"

class QVDriverDiskEjector : public QVDeviceNotificationReceiver {
  public:
    static constexpr const char* kDiskUtilityName = "qv-unmount-disk";

    void handleDevice(const std::shared_ptr<QVIODevice>& device) override;
    void timeoutHandlingDevice(const std::shared_ptr<QVIODevice>& device) override;
    // Also cancels the unmounts still waiting for their second: nothing starts after a stop.
    void stopExamination() override;

    // Logs the volume and starts the disk utility on the device's driver disk.
    void unmountDriverVolumeForIODevice(const std::shared_ptr<QVIODevice>& device);

    // The program started to unmount a whole disk; by default the one in the bundle's resources.
    std::string diskUtilityPath() const;
    void setDiskUtilityPath(std::optional<std::string> path) { _diskUtilityPath = std::move(path); }

    std::size_t pendingUnmountCountForTesting() const;

  private:
    std::optional<std::string> _diskUtilityPath;
    // The delayed unmounts; fired ones are dropped at the next scheduling.
    std::vector<std::shared_ptr<qv::Timer>> _pendingUnmounts;
};
