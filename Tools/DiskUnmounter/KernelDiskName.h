// Which names the unmounter accepts: a kernel block device name as it appears under
// /sys/class/block (sdb, sr0, mmcblk0, nvme0n1), never a path or something that reads as an option.
#pragma once

#include <string_view>

namespace diskunmounter {

// True for a name of at most 31 characters from [A-Za-z0-9_.-] that does not start with '-' or
// '.' and contains no "..": nothing that could climb out of /sys/class/block or /dev.
bool isPlainKernelName(std::string_view name);

// True for the SCSI CD-ROM driver's names (sr0, sr12): the drives whose medium is ejected after
// the unmount.
bool isOpticalDriveName(std::string_view name);

}  // namespace diskunmounter
