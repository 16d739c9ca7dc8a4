// Which mounts of a disk to unmount, and in which order.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "DiskDevices.h"
#include "MountTable.h"

namespace diskunmounter {

struct PlannedUnmount {
    std::string mountPoint;
    std::string deviceName;  // the disk or partition the mounted filesystem lives on
};

class UnmountPlan {
  public:
    // Every mount of a filesystem on `disk` (the disk or one of its partitions, bind mounts
    // included), ordered so that whatever is mounted on top of or inside a mount goes first.
    // nullopt with a reason when a mount of another device sits on or inside one of the disk's
    // mounts: that one is not ours to remove, so nothing is planned.
    static std::optional<UnmountPlan> make(const MountTable& table, const DiskDevices& disk,
                                           std::string* error);

    // The device of `entry` when it lives on `disk`: by device number, or for filesystems that
    // show an anonymous device number (btrfs) by the source's /dev path.
    static const BlockDevice* owner(const MountEntry& entry, const DiskDevices& disk);

    const std::vector<PlannedUnmount>& steps() const { return steps_; }

  private:
    std::vector<PlannedUnmount> steps_;
};

}  // namespace diskunmounter
