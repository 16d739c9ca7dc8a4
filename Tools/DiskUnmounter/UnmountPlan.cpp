#include "UnmountPlan.h"

#include <algorithm>

namespace diskunmounter {

namespace {

bool hasChild(const std::vector<MountEntry>& entries, const MountEntry& parent) {
    return std::any_of(entries.begin(), entries.end(), [&](const MountEntry& entry) {
        return entry.parentId == parent.mountId && entry.mountId != parent.mountId;
    });
}

// The first mount of another device on or below `entry` (one of `entries`), searched depth first.
// Each mount is walked once: in a made-up table parent links may loop and mount IDs repeat, and
// a walk along every path would then take exponential time.
const MountEntry* foreignBlocker(const std::vector<MountEntry>& entries, const MountEntry& entry,
                                 const DiskDevices& disk) {
    std::vector<bool> walked(entries.size(), false);
    walked[static_cast<std::size_t>(&entry - entries.data())] = true;
    std::vector<const MountEntry*> stack{&entry};
    while (!stack.empty()) {
        const MountEntry* current = stack.back();
        stack.pop_back();
        if (!UnmountPlan::owner(*current, disk)) {
            return current;
        }
        // Pushed last to first, so that the table's first child is walked first.
        for (std::size_t i = entries.size(); i-- > 0;) {
            const MountEntry& child = entries[i];
            if (!walked[i] && child.parentId == current->mountId &&
                child.mountId != current->mountId) {
                walked[i] = true;
                stack.push_back(&child);
            }
        }
    }
    return nullptr;
}

}  // namespace

const BlockDevice* UnmountPlan::owner(const MountEntry& entry, const DiskDevices& disk) {
    if (entry.major != 0) {
        return disk.find(entry.major, entry.minor);
    }
    return disk.findByDevicePath(entry.source);
}

std::optional<UnmountPlan> UnmountPlan::make(const MountTable& table, const DiskDevices& disk,
                                             std::string* error) {
    std::vector<MountEntry> remaining = table.entries();
    UnmountPlan plan;
    for (;;) {
        // The latest mount of the disk with nothing on top of or inside it.
        auto leaf = std::find_if(remaining.rbegin(), remaining.rend(), [&](const MountEntry& e) {
            return owner(e, disk) && !hasChild(remaining, e);
        });
        if (leaf != remaining.rend()) {
            plan.steps_.push_back({leaf->mountPoint, owner(*leaf, disk)->name});
            remaining.erase(std::next(leaf).base());
            continue;
        }
        auto blocked = std::find_if(remaining.begin(), remaining.end(),
                                    [&](const MountEntry& e) { return owner(e, disk) != nullptr; });
        if (blocked == remaining.end()) {
            return plan;
        }
        if (error) {
            const MountEntry* blocker = foreignBlocker(remaining, *blocked, disk);
            *error = "cannot unmount " + MountTable::quoted(blocked->mountPoint) + " (" +
                     owner(*blocked, disk)->name + "): " +
                     (blocker ? MountTable::quoted(blocker->mountPoint) +
                                    " of another device is mounted on or inside it"
                              : std::string("the mount table loops"));
        }
        return std::nullopt;
    }
}

}  // namespace diskunmounter
