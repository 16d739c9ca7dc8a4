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
    static bool unmount(const std::string& mountPoint, std::string* error);

    // Ejects the medium of an optical drive with the CDROMEJECT ioctl on /dev/NAME, after making
    // sure that node is the block device `drive` names (same device number).
    static bool ejectMedium(const BlockDevice& drive, std::string* error);
};

}  // namespace diskunmounter
