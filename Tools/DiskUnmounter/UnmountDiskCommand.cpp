#include "UnmountDiskCommand.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ostream>

#include "HelperCommandLine/HelperCommandLine.h"
#include "KernelDiskActions.h"
#include "KernelDiskName.h"
#include "MountTable.h"
#include "UnmountPlan.h"

namespace diskunmounter {

namespace {

// udisks2 may unmount one mount point of a filesystem per call (bind mounts give several).
constexpr int kMaximumUDisksRounds = 8;
// The mount table is read again after each round, to catch what was mounted meanwhile.
constexpr int kMaximumKernelRounds = 3;

std::vector<const UDisksClient::Block*> mountedBlocksOf(
    const std::vector<UDisksClient::Block>& blocks, const DiskDevices& disk) {
    std::vector<const UDisksClient::Block*> mounted;
    for (const UDisksClient::Block& block : blocks) {
        if (disk.find(block.major, block.minor) && block.hasFilesystem &&
            !block.mountPoints.empty()) {
            mounted.push_back(&block);
        }
    }
    return mounted;
}

}  // namespace

const char* UnmountDiskCommand::usage() {
    return "usage: qv-unmount-disk [options] unmountDisk [force] NAME\n"
           "       qv-unmount-disk [options] eject NAME\n"
           "\n"
           "unmountDisk unmounts every mounted filesystem of the block device NAME and of its\n"
           "partitions, and nothing more (an optical drive keeps its medium).\n"
           "With force, a filesystem that is still in use is detached instead of refused.\n"
           "eject unmounts the same and then ejects the medium of the whole disk NAME (a CD,\n"
           "or a removable SCSI disk such as a modem's memory card); a disk that sysfs does\n"
           "not call removable is refused.\n"
           "NAME is a kernel name as listed in /sys/class/block (sdb, sr0, mmcblk0), not a\n"
           "path. udisks2 does the work when it is on the system bus, so that a desktop user\n"
           "may; otherwise the mounts found in the mount table are removed with umount2 and a\n"
           "medium is ejected with the CDROMEJECT ioctl (optical drives) or the SCSI START STOP\n"
           "UNIT command (other disks); both need root.\n"
           "\n"
           "options:\n"
           "  --dry-run         print what would be done and change nothing\n"
           "  --no-udisks       do not use udisks2\n"
           "  --mountinfo PATH  read the mount table from PATH instead of /proc/self/mountinfo\n"
           "                    (for tests; only with --dry-run, implies --no-udisks)\n"
           "  --sysfs DIR       look up block devices under DIR instead of /sys\n"
           "                    (for tests; only with --dry-run, implies --no-udisks)\n"
           "  --help            print this text\n"
           "\n"
           "Exits with 0 when nothing of the disk is left mounted, otherwise prints one line\n"
           "saying why and exits with 1.\n";
}

std::optional<UnmounterOptions> UnmountDiskCommand::parse(const std::vector<std::string>& arguments,
                                                          std::string* error, bool* helpWanted) {
    UnmounterOptions options;
    bool haveCommand = false;
    bool haveName = false;
    bool overridden = false;
    *helpWanted = false;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (haveCommand && !haveName) {
            // "force" right after unmountDisk is the flag, unless nothing follows it.
            if (options.command == DiskCommand::UnmountDisk && !options.force &&
                argument == "force" && i + 1 < arguments.size()) {
                options.force = true;
                continue;
            }
            // Whatever follows the command is the name, checked later: "-x" is refused as a name,
            // never taken for an option.
            options.diskName = argument;
            haveName = true;
        } else if (helpercli::isHelpOption(argument)) {
            *helpWanted = true;
            return std::nullopt;
        } else if (argument == "--dry-run") {
            options.dryRun = true;
        } else if (argument == "--no-udisks") {
            options.useUDisks = false;
        } else if (helpercli::isOption(argument, "--mountinfo")) {
            if (!helpercli::takeOptionValue(arguments, &i, "--mountinfo", &options.mountInfoPath,
                                            error)) {
                return std::nullopt;
            }
            options.useUDisks = false;
            overridden = true;
        } else if (helpercli::isOption(argument, "--sysfs")) {
            if (!helpercli::takeOptionValue(arguments, &i, "--sysfs", &options.sysfsRoot, error)) {
                return std::nullopt;
            }
            options.useUDisks = false;
            overridden = true;
        } else if (argument.rfind("-", 0) == 0) {
            *error = "unknown option " + MountTable::quoted(argument);
            return std::nullopt;
        } else if (!haveCommand && (argument == "unmountDisk" || argument == "eject")) {
            haveCommand = true;
            options.command = argument == "eject" ? DiskCommand::Eject : DiskCommand::UnmountDisk;
        } else if (!haveCommand) {
            *error = "unknown command " + MountTable::quoted(argument) +
                     " (usage: qv-unmount-disk [options] unmountDisk [force] NAME | eject NAME)";
            return std::nullopt;
        } else {
            *error = "unexpected argument " + MountTable::quoted(argument) + " after the name";
            return std::nullopt;
        }
    }
    if (!haveName) {
        *error = "usage: qv-unmount-disk [options] unmountDisk [force] NAME | eject NAME";
        return std::nullopt;
    }
    // A made-up mount table or sysfs could name mounts of another disk: look, never touch.
    if (overridden && !options.dryRun) {
        *error = "--mountinfo and --sysfs are only for --dry-run";
        return std::nullopt;
    }
    return options;
}

int UnmountDiskCommand::main(const std::vector<std::string>& arguments, std::ostream& out,
                             std::ostream& err) {
    return helpercli::runProgram<UnmountDiskCommand, UnmounterOptions>("qv-unmount-disk", arguments,
                                                                       out, err);
}

std::string UnmountDiskCommand::withPrivilegeAdvice(const std::string& message) {
    const bool refused = message.find(std::strerror(EPERM)) != std::string::npos ||
                         message.find(std::strerror(EACCES)) != std::string::npos;
    if (!refused || geteuid() == 0) {
        return message;
    }
    return message +
           " (without udisks2 only root may do this: install and start udisks2, whose polkit "
           "rules let the user at the seat unmount and eject removable disks)";
}

int UnmountDiskCommand::fail(const std::string& message) {
    return helpercli::failWithLine(err_, "qv-unmount-disk", message);
}

bool UnmountDiskCommand::shouldEject() const {
    // unmountDisk only unmounts, also an optical drive: the caller ejects with `eject` next, and
    // that would fail on a drive already open.
    return options_.command == DiskCommand::Eject;
}

std::string UnmountDiskCommand::kernelEjectWay(const DiskDevices& disk) const {
    return isOpticalDriveName(disk.disk().name) ? "the CDROMEJECT ioctl" : "SCSI START STOP UNIT";
}

int UnmountDiskCommand::run() {
    if (!isPlainKernelName(options_.diskName)) {
        return fail("refusing " + MountTable::quoted(options_.diskName) +
                    ": not a plain kernel block device name");
    }
    std::string error;
    std::optional<DiskDevices> disk =
        DiskDevices::read(options_.sysfsRoot, options_.diskName, &error);
    if (!disk) {
        return fail(error);
    }
    // A medium belongs to the whole disk: ejecting "a partition" would take its siblings along.
    if (options_.command == DiskCommand::Eject && disk->isPartition()) {
        return fail("cannot eject " + options_.diskName + ": it is a partition, not a whole disk");
    }
    // A fixed disk has no medium to take out; stopping it could take the system's disk away.
    if (options_.command == DiskCommand::Eject && !disk->isRemovable()) {
        return fail("cannot eject " + options_.diskName + ": it is not a removable disk");
    }
    if (options_.dryRun) {
        out_ << "disk " << disk->description() << "\n";
    }
    if (options_.useUDisks) {
        if (std::optional<int> status = runThroughUDisks(*disk)) {
            return *status;
        }
    }
    return runThroughKernel(*disk);
}

std::optional<int> UnmountDiskCommand::runThroughUDisks(const DiskDevices& disk) {
    std::string why;
    std::unique_ptr<UDisksClient> client = UDisksClient::connect(options_.busAddress, &why);
    std::vector<UDisksClient::Block> blocks;
    if (client && !client->blocks(&blocks, &why)) {
        client.reset();
    }
    if (client) {
        bool known = std::any_of(blocks.begin(), blocks.end(), [&](const UDisksClient::Block& b) {
            return disk.find(b.major, b.minor) != nullptr;
        });
        if (known) {
            return unmountThroughUDisks(*client, disk, std::move(blocks));
        }
        why = "udisks2 does not manage " + disk.disk().name;
    }
    if (options_.dryRun) {
        out_ << "not using udisks2 (" << why << ")\n";
    }
    return std::nullopt;
}

int UnmountDiskCommand::unmountThroughUDisks(UDisksClient& client, const DiskDevices& disk,
                                             std::vector<UDisksClient::Block> blocks) {
    auto deviceOf = [&](const UDisksClient::Block* block) {
        return disk.find(block->major, block->minor)->name;
    };
    if (options_.dryRun) {
        for (const UDisksClient::Block* block : mountedBlocksOf(blocks, disk)) {
            for (const std::string& mountPoint : block->mountPoints) {
                out_ << "would " << (options_.force ? "force-unmount " : "unmount ")
                     << MountTable::quoted(mountPoint) << " (" << deviceOf(block)
                     << ") through udisks2\n";
            }
        }
        if (shouldEject()) {
            out_ << "would eject " << disk.disk().name << " through udisks2\n";
        }
        return 0;
    }
    std::string error;
    for (int round = 0; round < kMaximumUDisksRounds; ++round) {
        std::vector<const UDisksClient::Block*> mounted = mountedBlocksOf(blocks, disk);
        if (mounted.empty()) {
            break;
        }
        for (const UDisksClient::Block* block : mounted) {
            std::string what =
                MountTable::quoted(block->mountPoints.front()) + " (" + deviceOf(block) + ")";
            if (!client.unmount(block->objectPath, options_.force, &error)) {
                return fail("cannot unmount " + what + " through udisks2: " + error);
            }
            out_ << "unmounted " << what << "\n";
        }
        if (!client.blocks(&blocks, &error)) {
            return fail("udisks2 stopped answering: " + error);
        }
    }
    std::vector<const UDisksClient::Block*> left = mountedBlocksOf(blocks, disk);
    if (!left.empty()) {
        return fail(deviceOf(left.front()) + " is still mounted at " +
                    MountTable::quoted(left.front()->mountPoints.front()));
    }
    if (!shouldEject()) {
        return 0;
    }
    auto drive = std::find_if(blocks.begin(), blocks.end(), [&](const UDisksClient::Block& b) {
        return b.major == disk.disk().major && b.minor == disk.disk().minor;
    });
    if (drive == blocks.end() || drive->drivePath == "/") {
        return fail("cannot eject " + disk.disk().name + ": udisks2 knows no drive for it");
    }
    if (!client.eject(drive->drivePath, &error)) {
        return fail("cannot eject " + disk.disk().name + " through udisks2: " + error);
    }
    out_ << "ejected " << disk.disk().name << "\n";
    return 0;
}

bool UnmountDiskCommand::isStillMounted(const DiskDevices& disk, const PlannedUnmount& step) const {
    // Gone already (unmounted by someone else meanwhile) counts as done.
    std::optional<MountTable> table = MountTable::read(options_.mountInfoPath, nullptr);
    if (!table) {
        return true;
    }
    return std::any_of(table->entries().begin(), table->entries().end(), [&](const MountEntry& e) {
        return e.mountPoint == step.mountPoint && UnmountPlan::owner(e, disk) != nullptr;
    });
}

int UnmountDiskCommand::runThroughKernel(const DiskDevices& disk) {
    std::string error;
    for (int round = 0;; ++round) {
        std::optional<MountTable> table = MountTable::read(options_.mountInfoPath, &error);
        if (!table) {
            return fail(error);
        }
        std::optional<UnmountPlan> plan = UnmountPlan::make(*table, disk, &error);
        if (!plan) {
            return fail(error);
        }
        if (plan->steps().empty()) {
            if (options_.dryRun) {
                out_ << "nothing of " << disk.disk().name << " is mounted\n";
            }
            break;
        }
        // Something mounts the disk again as fast as it goes (an automounter): give up.
        if (round == kMaximumKernelRounds) {
            return fail(plan->steps().front().deviceName + " is still mounted at " +
                        MountTable::quoted(plan->steps().front().mountPoint));
        }
        for (const PlannedUnmount& step : plan->steps()) {
            std::string what = MountTable::quoted(step.mountPoint) + " (" + step.deviceName + ")";
            if (options_.dryRun) {
                out_ << "would " << (options_.force ? "force-unmount " : "unmount ") << what
                     << " with umount2\n";
            } else if (KernelDiskActions::unmount(step.mountPoint, options_.force, &error)) {
                out_ << "unmounted " << what << "\n";
            } else if (isStillMounted(disk, step)) {
                return fail(withPrivilegeAdvice("cannot unmount " + what + ": " + error));
            }
        }
        if (options_.dryRun) {
            break;
        }
    }
    if (!shouldEject()) {
        return 0;
    }
    if (options_.dryRun) {
        out_ << "would eject " << disk.disk().name << " with " << kernelEjectWay(disk) << "\n";
        return 0;
    }
    if (!KernelDiskActions::ejectMedium(disk.disk(), &error)) {
        return fail(withPrivilegeAdvice("cannot eject " + disk.disk().name + ": " + error));
    }
    out_ << "ejected " << disk.disk().name << "\n";
    return 0;
}

}  // namespace diskunmounter
