#include "KernelDiskActions.h"

#include <fcntl.h>
#include <linux/cdrom.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "KernelDiskName.h"

namespace diskunmounter {

namespace {

// A SCSI command without data; false with the reason when the ioctl or the device refused it.
bool sendSCSICommand(int fd, const unsigned char (&command)[6], const char* name,
                     std::string* error) {
    unsigned char sense[32] = {};
    sg_io_hdr_t request{};
    request.interface_id = 'S';
    request.dxfer_direction = SG_DXFER_NONE;
    request.cmd_len = sizeof command;
    request.cmdp = const_cast<unsigned char*>(command);
    request.mx_sb_len = sizeof sense;
    request.sbp = sense;
    request.timeout = 10000;  // milliseconds; a drive spinning down may take a few seconds
    if (ioctl(fd, SG_IO, &request) != 0) {
        if (error) {
            *error = std::string(name) + ": " + std::strerror(errno);
        }
        return false;
    }
    if (request.status != 0 || request.host_status != 0 || request.driver_status != 0) {
        if (error) {
            *error = std::string(name) + " was refused by the device (status " +
                     std::to_string(request.status) + ")";
        }
        return false;
    }
    return true;
}

}  // namespace

bool KernelDiskActions::unmount(const std::string& mountPoint, bool force, std::string* error) {
    int flags = UMOUNT_NOFOLLOW | (force ? MNT_DETACH : 0);
    if (umount2(mountPoint.c_str(), flags) == 0) {
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
    if (!isOpticalDriveName(drive.name)) {
        bool ejected = ejectSCSIMedium(fd, path, error);
        close(fd);
        return ejected;
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

bool KernelDiskActions::ejectSCSIMedium(int fd, const std::string& path, std::string* error) {
    // As eject(1) does it: allow removal, spin up, then stop with the load/eject bit.
    static const unsigned char kAllowRemoval[6] = {0x1E, 0, 0, 0, 0, 0};
    static const unsigned char kStart[6] = {0x1B, 0, 0, 0, 0x01, 0};
    static const unsigned char kEject[6] = {0x1B, 0, 0, 0, 0x02, 0};
    std::string why;
    if (!sendSCSICommand(fd, kAllowRemoval, "ALLOW MEDIUM REMOVAL", &why) ||
        !sendSCSICommand(fd, kStart, "START STOP UNIT (start)", &why) ||
        !sendSCSICommand(fd, kEject, "START STOP UNIT (eject)", &why)) {
        if (error) {
            *error = why + " on " + path;
        }
        return false;
    }
    return true;
}

}  // namespace diskunmounter
