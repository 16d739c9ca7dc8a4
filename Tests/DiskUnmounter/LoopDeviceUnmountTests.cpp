// The unmounter against a real filesystem: an ext2 image on a loop device, mounted twice (once
// through a bind mount of a subdirectory) under paths with a space and a backslash. Needs root,
// loop devices, losetup and mkfs.ext2; skipped without them.
#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "Foundation/Task.h"
#include "MountTable.h"

namespace {

namespace fs = std::filesystem;
using diskunmounter::MountTable;

// External programs through the project's task seam; their error output goes to the test log.
qv::TaskResult runProgram(const std::string& path, const std::vector<std::string>& arguments) {
    return qv::PosixTaskLauncher().run(path, arguments);
}

std::string findTool(const char* name) {
    for (const char* directory : {"/usr/sbin", "/sbin", "/usr/bin", "/bin"}) {
        std::string path = std::string(directory) + "/" + name;
        if (access(path.c_str(), X_OK) == 0) {
            return path;
        }
    }
    return "";
}

// Mount points of the device `number`, and whether `path` is a mount point, right now.
std::vector<std::string> mountPointsOf(dev_t number) {
    std::string error;
    std::vector<std::string> points;
    auto table = MountTable::read("/proc/self/mountinfo", &error);
    EXPECT_TRUE(table) << error;
    for (const auto& entry : table ? table->entries() : std::vector<diskunmounter::MountEntry>{}) {
        if (entry.major == major(number) && entry.minor == minor(number)) {
            points.push_back(entry.mountPoint);
        }
    }
    return points;
}

// Everything the test set up goes again, even when an expectation failed half-way.
class LoopDisk {
  public:
    ~LoopDisk() {
        for (auto it = mounts.rbegin(); it != mounts.rend(); ++it) {
            umount2(it->c_str(), MNT_DETACH);
        }
        if (!device.empty()) {
            int fd = open(device.c_str(), O_RDONLY | O_CLOEXEC);
            if (fd >= 0) {
                ioctl(fd, LOOP_CLR_FD, 0);
                close(fd);
            }
        }
        if (!directory.empty()) {
            std::error_code ignored;
            fs::remove_all(directory, ignored);
        }
    }

    std::string directory;
    std::string device;
    std::vector<std::string> mounts;
};

TEST(DiskUnmounterOnALoopDevice, UnmountsEveryMountOfTheDiskAndLeavesOthers) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to mount";
    }
    std::string losetup = findTool("losetup");
    std::string mkfs = findTool("mkfs.ext2");
    if (losetup.empty() || mkfs.empty() || access("/dev/loop-control", F_OK) != 0) {
        GTEST_SKIP() << "needs losetup, mkfs.ext2 and loop devices";
    }
    LoopDisk disk;
    char pattern[] = "/tmp/qv-unmount-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    disk.directory = pattern;
    std::string image = disk.directory + "/disk.img";
    {
        std::FILE* file = std::fopen(image.c_str(), "wb");
        ASSERT_NE(file, nullptr);
        std::fclose(file);
        fs::resize_file(image, 4 * 1024 * 1024);
    }
    qv::TaskResult made = runProgram(mkfs, {"-q", "-F", image});
    ASSERT_TRUE(made.launched && made.exitStatus == 0) << made.error;
    qv::TaskResult attached = runProgram(losetup, {"--find", "--show", image});
    if (!attached.launched || attached.exitStatus != 0) {
        GTEST_SKIP() << "no loop device to be had " << attached.error;
    }
    disk.device = attached.output.substr(0, attached.output.find('\n'));
    ASSERT_EQ(disk.device.rfind("/dev/loop", 0), 0u) << disk.device;
    struct stat status {};
    ASSERT_EQ(stat(disk.device.c_str(), &status), 0);

    std::string first = disk.directory + "/mount point\\ one";
    std::string bound = disk.directory + "/bound";
    std::string other = disk.directory + "/other";
    for (const std::string& path : {first, bound, other}) {
        fs::create_directory(path);
    }
    if (mount(disk.device.c_str(), first.c_str(), "ext2", 0, nullptr) != 0) {
        GTEST_SKIP() << "cannot mount here: " << std::strerror(errno);
    }
    disk.mounts.push_back(first);
    fs::create_directory(first + "/sub");
    ASSERT_EQ(mount((first + "/sub").c_str(), bound.c_str(), nullptr, MS_BIND, nullptr), 0)
        << std::strerror(errno);
    disk.mounts.push_back(bound);
    ASSERT_EQ(mount("qvother", other.c_str(), "tmpfs", 0, "size=64k"), 0) << std::strerror(errno);
    disk.mounts.push_back(other);
    ASSERT_EQ(mountPointsOf(status.st_rdev), (std::vector<std::string>{first, bound}));

    std::string name = disk.device.substr(std::strlen("/dev/"));
    // A user without root, and here without udisks2, is refused, told what would allow it, and
    // nothing is unmounted.
    std::string setpriv = findTool("setpriv");
    if (!setpriv.empty()) {
        qv::TaskResult asUser =
            runProgram("/bin/sh", {"-c", "exec \"$0\" \"$@\" 2>&1", setpriv, "--reuid=nobody",
                                   "--regid=nogroup", "--clear-groups", QV_UNMOUNTER_PATH,
                                   "--no-udisks", "unmountDisk", name});
        EXPECT_EQ(asUser.exitStatus, 1) << asUser.output;
        EXPECT_NE(asUser.output.find("without udisks2 only root may do this: install and start "
                                     "udisks2"),
                  std::string::npos)
            << asUser.output;
        EXPECT_EQ(mountPointsOf(status.st_rdev), (std::vector<std::string>{first, bound}));
    }

    // As the driver disk ejector starts it.
    qv::TaskResult unmounted = runProgram(QV_UNMOUNTER_PATH, {"unmountDisk", name});
    ASSERT_TRUE(unmounted.launched) << unmounted.error;
    EXPECT_EQ(unmounted.exitStatus, 0) << unmounted.output;
    EXPECT_EQ(mountPointsOf(status.st_rdev), std::vector<std::string>{});
    std::string error;
    auto table = MountTable::read("/proc/self/mountinfo", &error);
    ASSERT_TRUE(table) << error;
    bool otherMounted = false;
    for (const auto& entry : table->entries()) {
        otherMounted = otherMounted || entry.mountPoint == other;
    }
    EXPECT_TRUE(otherMounted) << "a mount of another device was touched";

    // Nothing left to do is no failure.
    qv::TaskResult again = runProgram(QV_UNMOUNTER_PATH, {"unmountDisk", name});
    EXPECT_EQ(again.exitStatus, 0) << again.output;

    // A filesystem in use is refused, unless forced: then it is detached at once.
    ASSERT_EQ(mount(disk.device.c_str(), first.c_str(), "ext2", 0, nullptr), 0)
        << std::strerror(errno);
    int busy = open((first + "/sub").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(busy, 0) << std::strerror(errno);
    qv::TaskResult refused = runProgram(QV_UNMOUNTER_PATH, {"unmountDisk", name});
    EXPECT_EQ(refused.exitStatus, 1);
    EXPECT_EQ(mountPointsOf(status.st_rdev), std::vector<std::string>{first});
    qv::TaskResult forced = runProgram(QV_UNMOUNTER_PATH, {"unmountDisk", "force", name});
    EXPECT_EQ(forced.exitStatus, 0) << forced.output;
    EXPECT_EQ(mountPointsOf(status.st_rdev), std::vector<std::string>{});
    close(busy);

    // A loop device is no removable disk: its eject is refused, in one line.
    qv::TaskResult eject = runProgram("/bin/sh", {"-c", "exec \"$0\" \"$@\" 2>&1",
                                                  QV_UNMOUNTER_PATH, "--no-udisks", "eject", name});
    EXPECT_EQ(eject.exitStatus, 1);
    EXPECT_NE(eject.output.find("is not a removable disk"), std::string::npos) << eject.output;
}

}  // namespace
