#include "UnmountPlan.h"

#include <algorithm>

namespace diskunmounter {

namespace {

bool hasChild(const std::vector<MountEntry>& entries, const MountEntry& parent) {
    return std::any_of(entries.begin(), entries.end(), [&](const MountEntry& entry) {
        return entry.parentId == parent.mountId && entry.mountId != parent.mountId;
    });
}

// The first mount of another device on or below `entry`, searched depth first. `depth` bounds the
// walk, so a table whose parent links loop cannot recurse forever.
const MountEntry* foreignBlocker(const std::vector<MountEntry>& entries, const MountEntry& entry,
                                 const DiskDevices& disk, std::size_t depth) {
    if (depth == 0) {
        return nullptr;
    }
    for (const MountEntry& child : entries) {
        if (child.parentId != entry.mountId || child.mountId == entry.mountId) {
            continue;
        }
        if (!UnmountPlan::owner(child, disk)) {
            return &child;
        }
        if (const MountEntry* blocker = foreignBlocker(entries, child, disk, depth - 1)) {
            return blocker;
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
            const MountEntry* blocker = foreignBlocker(remaining, *blocked, disk, remaining.size());
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
