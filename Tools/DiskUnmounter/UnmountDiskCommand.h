// qv-unmount-disk: the disk utility the framework starts where the Mac had /usr/sbin/diskutil.
// `unmountDisk [force] NAME` unmounts every mounted filesystem of one disk and its partitions and
// nothing more; `eject NAME` unmounts the same and ejects the medium of a removable disk. NAME is
// a kernel block device name (sdb, sr0).
#pragma once

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "DiskDevices.h"
#include "UDisksClient.h"
#include "UnmountPlan.h"

namespace diskunmounter {

enum class DiskCommand { UnmountDisk, Eject };

struct UnmounterOptions {
    DiskCommand command = DiskCommand::UnmountDisk;
    // unmountDisk force: filesystems still in use are detached (lazy unmount) rather than refused.
    bool force = false;
    std::string diskName;
    bool dryRun = false;
    bool useUDisks = true;
    std::string mountInfoPath = "/proc/self/mountinfo";
    std::string sysfsRoot = "/sys";
    // The bus udisks2 is looked for on; empty for the system bus. Tests give a private one.
    std::string busAddress;
};

class UnmountDiskCommand {
  public:
    UnmountDiskCommand(UnmounterOptions options, std::ostream& out, std::ostream& err)
        : options_(std::move(options)), out_(out), err_(err) {}

    // The whole program: `arguments` without the program name. Returns the exit status.
    static int main(const std::vector<std::string>& arguments, std::ostream& out,
                    std::ostream& err);
    // nullopt with `error` set for a bad command line; with `helpWanted` set for --help.
    static std::optional<UnmounterOptions> parse(const std::vector<std::string>& arguments,
                                                 std::string* error, bool* helpWanted);
    static const char* usage();

    // Checks the name and the disk, then unmounts. 0 when everything of the disk is unmounted
    // (and, for eject, the medium ejected); 1 after printing one line to `err` otherwise.
    int run();

  private:
    int fail(const std::string& message);
    // A refusal for lack of privilege (not root, no udisks2) says what would allow it.
    static std::string withPrivilegeAdvice(const std::string& message);
    // Answers nullopt when udisks2 cannot do the job and the kernel way should be taken.
    std::optional<int> runThroughUDisks(const DiskDevices& disk);
    int unmountThroughUDisks(UDisksClient& client, const DiskDevices& disk,
                             std::vector<UDisksClient::Block> blocks);
    int runThroughKernel(const DiskDevices& disk);
    bool isStillMounted(const DiskDevices& disk, const PlannedUnmount& step) const;
    bool shouldEject() const;
    std::string kernelEjectWay(const DiskDevices& disk) const;

    UnmounterOptions options_;
    std::ostream& out_;
    std::ostream& err_;
};

}  // namespace diskunmounter
