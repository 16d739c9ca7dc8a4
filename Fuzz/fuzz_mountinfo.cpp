// The disk unmounter's mount table on any text, and its plan for one disk of a made-up sysfs (the
// tests' fixture: sdb with sdb1 and sdb2, sdc with sdc1, sr0). The first byte picks the disk, the
// rest is the mountinfo text. Parsing answers a table or a reason; a plan answers, in reasonable
// time, every mount of the disk exactly once and nothing of another device, or a reason. Paths
// quoted for messages stay on one line and unescape to themselves.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "DiskDevices.h"
#include "MountTable.h"
#include "UnmountPlan.h"

namespace {

using diskunmounter::DiskDevices;
using diskunmounter::MountEntry;
using diskunmounter::MountTable;
using diskunmounter::UnmountPlan;

[[noreturn]] void fail(const char* what, const std::string& detail) {
    std::fprintf(stderr, "%s: %s\n", what, detail.c_str());
    std::abort();
}

const std::vector<DiskDevices>& disks() {
    static const std::vector<DiskDevices> all = [] {
        std::vector<DiskDevices> read;
        for (const char* name : {"sdb", "sdb1", "sdb2", "sdc", "sdc1", "sr0"}) {
            std::string error;
            std::optional<DiskDevices> disk = DiskDevices::read(QV_FUZZ_SYSFS_ROOT, name, &error);
            if (!disk) {
                fail("the sysfs fixture is missing a disk", error);
            }
            read.push_back(*disk);
        }
        return read;
    }();
    return all;
}

void checkQuoted(const std::string& path) {
    const std::string quoted = MountTable::quoted(path);
    if (quoted.size() < 2 || quoted.front() != '"' || quoted.back() != '"' ||
        quoted.find('\n') != std::string::npos) {
        fail("a quoted path is not one quoted line", quoted);
    }
    if (MountTable::unescape(std::string_view(quoted).substr(1, quoted.size() - 2)) != path) {
        fail("a quoted path does not unescape to itself", quoted);
    }
}

void checkPlan(const MountTable& table, const DiskDevices& disk) {
    std::string error;
    const std::optional<UnmountPlan> plan = UnmountPlan::make(table, disk, &error);
    if (!plan) {
        if (error.empty()) {
            fail("a plan was refused without a reason", disk.description());
        }
        return;
    }
    std::size_t owned = 0;
    for (const MountEntry& entry : table.entries()) {
        owned += UnmountPlan::owner(entry, disk) != nullptr ? 1 : 0;
    }
    if (plan->steps().size() != owned) {
        fail("a plan does not unmount each mount of the disk once", disk.description());
    }
    for (const auto& step : plan->steps()) {
        bool ours = false;
        for (const auto& device : disk.devices()) {
            ours = ours || device.name == step.deviceName;
        }
        if (!ours) {
            fail("a plan unmounts another device", step.deviceName);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const DiskDevices& disk = disks()[data[0] % disks().size()];
    const std::string_view text(reinterpret_cast<const char*>(data + 1), size - 1);
    std::string error;
    const std::optional<MountTable> table = MountTable::parse(text, &error);
    if (!table) {
        if (error.empty()) {
            fail("a table was refused without a reason", std::string(text));
        }
        return 0;
    }
    for (const MountEntry& entry : table->entries()) {
        checkQuoted(entry.mountPoint);
        checkQuoted(entry.source);
    }
    checkPlan(*table, disk);
    return 0;
}
