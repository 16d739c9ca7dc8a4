// Two small bridges to the system offered to the host application and the serial port enabler:
// sending a signal to processes by name (killall), and finding where a disk is mounted by its
// kernel name.
#pragma once

#include <string>

#include "Foundation/Object.h"
#include "Foundation/Value.h"

class QVSystemHelper : public qv::Object {
  public:
    static constexpr const char* kKillallPath = "/usr/bin/killall";

    // Runs killall with "-SIGNAL" and the process name, and waits for it; its outcome is not
    // examined (no such process is no failure). (sendSignal:ToProcess: on the Mac.)
    static void sendSignal(const std::string& signal, const std::string& processName);
};

// The mount point of the disk `bsdName` (sr0, sdb), or nil when nothing of it is mounted. Answers
// what `df | grep NAME | awk '{ printf $6 }'` answered, without a shell: every mounted file system
// whose df line contains the name anywhere counts (so sdb also matches sdb1 and sdb10), their
// mount points are run together, each only up to its first blank, and the whole is cut at 127
// bytes. Reads the mount table through qv::MountedFileSystems.
qv::Value volumeNameForBSD(const std::string& bsdName);
