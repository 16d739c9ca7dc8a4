// The block devices that make up one disk: the disk itself and its partitions, with their device
// numbers, as sysfs lists them (/sys/class/block/NAME/dev and the partition directories below it).
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace diskunmounter {

struct BlockDevice {
    std::string name;
    unsigned major = 0;
    unsigned minor = 0;
};

class DiskDevices {
  public:
    // Reads the disk `name` (already checked to be a plain kernel name) under `sysfsRoot`.
    // nullopt with a reason when sysfs has no block device of that name.
    static std::optional<DiskDevices> read(const std::string& sysfsRoot, const std::string& name,
                                           std::string* error);

    const BlockDevice& disk() const { return devices_.front(); }
    // The disk first, then its partitions by device number.
    const std::vector<BlockDevice>& devices() const { return devices_; }
    bool isPartition() const { return isPartition_; }
    // sysfs's "removable" attribute of the disk is 1: a medium that may be taken out (a CD, a
    // card reader's card). Not known counts as not removable.
    bool isRemovable() const { return isRemovable_; }

    // The member with this device number, or nullptr.
    const BlockDevice* find(unsigned major, unsigned minor) const;
    // The member whose /dev path is `path` ("/dev/sdb1"), or nullptr.
    const BlockDevice* findByDevicePath(const std::string& path) const;

    // "sdb (8:16) with partitions sdb1 (8:17), sdb2 (8:18)"
    std::string description() const;

  private:
    std::vector<BlockDevice> devices_;
    bool isPartition_ = false;
    bool isRemovable_ = false;
};

}  // namespace diskunmounter
