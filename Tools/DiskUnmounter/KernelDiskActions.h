// Unmounting and ejecting through the kernel directly, for when udisks2 is not there. Needs the
// privilege to unmount (root or CAP_SYS_ADMIN).
#pragma once

#include <string>

#include "DiskDevices.h"

namespace diskunmounter {

class KernelDiskActions {
  public:
    // umount2 without following a symbolic link in the last component: the path comes from the
    // mount table, so a link there would lead somewhere else.
    // With `force` the filesystem is detached even while in use (MNT_DETACH): it goes from the
    // namespace at once and is cleaned up when the last user lets go.
    static bool unmount(const std::string& mountPoint, bool force, std::string* error);

    // Ejects the medium of the whole disk /dev/NAME, after making sure that node is the block
    // device `drive` names (same device number): an optical drive with the CDROMEJECT ioctl, any
    // other disk with SCSI ALLOW MEDIUM REMOVAL and START STOP UNIT (load/eject) through SG_IO.
    static bool ejectMedium(const BlockDevice& drive, std::string* error);

  private:
    static bool ejectSCSIMedium(int fd, const std::string& path, std::string* error);
};

}  // namespace diskunmounter
