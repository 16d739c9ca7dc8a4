#include "KernelDiskActions.h"

#include <fcntl.h>
#include <linux/cdrom.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace diskunmounter {

bool KernelDiskActions::unmount(const std::string& mountPoint, std::string* error) {
    if (umount2(mountPoint.c_str(), UMOUNT_NOFOLLOW) == 0) {
        return true;
    }
    if (error) {
        *error = std::strerror(errno);
    }
    return false;
}

bool KernelDiskActions::ejectMedium(const BlockDevice& drive, std::string* error) {
    std::string path = "/dev/" + drive.name;
    // O_NONBLOCK opens the drive even without a medium or with the tray open.
    int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) {
        if (error) {
            *error = "cannot open " + path + ": " + std::strerror(errno);
        }
        return false;
    }
    struct stat status {};
    bool sameDevice = fstat(fd, &status) == 0 && S_ISBLK(status.st_mode) &&
                      major(status.st_rdev) == drive.major && minor(status.st_rdev) == drive.minor;
    if (!sameDevice) {
        close(fd);
        if (error) {
            *error = path + " is not the block device " + std::to_string(drive.major) + ":" +
                     std::to_string(drive.minor);
        }
        return false;
    }
    int result = ioctl(fd, CDROMEJECT, 0);
    int savedErrno = errno;
    close(fd);
    if (result != 0) {
        if (error) {
            *error = "CDROMEJECT on " + path + ": " + std::strerror(savedErrno);
        }
        return false;
    }
    return true;
}

}  // namespace diskunmounter
