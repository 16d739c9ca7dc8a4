// qv::MountedFileSystems: the system's table of mounted file systems, as `df` shows it (what is
// mounted from which device, and where). A seam: the real one reads the kernel's mount table of
// this process's mount namespace; tests and the simulator install a fixed table they change as
// their story goes.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace qv {

struct MountedFileSystem {
    std::string device;      // what df prints as "Filesystem": /dev/sdb1, tmpfs, ...
    std::string mountPoint;  // unescaped
};

class MountedFileSystems {
  public:
    virtual ~MountedFileSystems() = default;
    // The mounts now, in the table's order; empty when the table cannot be read.
    virtual std::vector<MountedFileSystem> mounts() = 0;

    static MountedFileSystems& shared();
    // nullptr restores the system's table.
    static void setShared(std::shared_ptr<MountedFileSystems> table);
    // The one set now, or the system's once made; nullptr before either (to put back later).
    static std::shared_ptr<MountedFileSystems> installed();
};

// /proc/self/mountinfo (proc(5)), read afresh at each call and never more than a few megabytes.
class KernelMountedFileSystems : public MountedFileSystems {
  public:
    explicit KernelMountedFileSystems(std::string path = "/proc/self/mountinfo")
        : path_(std::move(path)) {}
    std::vector<MountedFileSystem> mounts() override;

    // The mounts of mountinfo text; lines without the kernel's layout are skipped.
    static std::vector<MountedFileSystem> parse(const std::string& text);
    // Undoes the kernel's octal escapes (\040 for a blank, \134 for a backslash).
    static std::string unescape(const std::string& field);

  private:
    std::string path_;
};

// A table that a test or the simulator sets up and changes.
class FixedMountedFileSystems : public MountedFileSystems {
  public:
    std::vector<MountedFileSystem> mounts() override { return mounts_; }

    void mount(std::string device, std::string mountPoint) {
        mounts_.push_back({std::move(device), std::move(mountPoint)});
    }
    // Removes every mount of exactly this device; answers how many went.
    std::size_t unmountDevice(const std::string& device);
    void clear() { mounts_.clear(); }

  private:
    std::vector<MountedFileSystem> mounts_;
};

}  // namespace qv
