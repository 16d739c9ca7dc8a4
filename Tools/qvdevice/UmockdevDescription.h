// qvdevice::UmockdevDescription: the recorded USB devices in umockdev's device description format,
// as `umockdev-record` writes it, so that `umockdev-run -d FILE -- qvdevice run` replays them:
// one block per sysfs device ("P:" its path below /sys, "N:" its node below /dev, "E:" udev
// properties, "A:" text attributes with "\n" for a line end, "H:" binary attributes in hex, "L:"
// links such as the driver), blocks separated by a blank line. Each device comes with everything
// below it (interfaces, ttys, network interfaces, disks) and its ancestors up to the root.
//
// Devices are read from sysfs when they are first seen, since an unplugged stick leaves nothing
// to read at the end.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "IOKit/Registry.h"

namespace qvdevice {

class IdentifierMasker;

class UmockdevDescription {
  public:
    // Reads the sysfs devices of the registry's USB device entries not read before.
    void addDevices(const qv::Registry& registry, const std::vector<io_registry_entry_t>& devices);
    // The description; values masked with `masker` unless it is nullptr.
    std::string text(IdentifierMasker* masker) const;
    // How many sysfs devices it holds.
    std::size_t deviceCount() const { return blocks_.size(); }

    // The most bytes read of one attribute file.
    static constexpr std::size_t kMaxAttributeSize = 64 * 1024;

  private:
    struct Line {
        char kind;  // 'N', 'E', 'A', 'H', 'L'
        std::string key;
        std::string value;
    };
    struct Block {
        std::string devpath;  // "/devices/..."
        std::vector<Line> lines;
    };

    void readDevice(const std::string& sysPath);

    std::set<io_registry_entry_t> seen_;
    std::set<std::string> devpaths_;
    std::vector<Block> blocks_;
};

}  // namespace qvdevice
