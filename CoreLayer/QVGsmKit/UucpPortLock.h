// qv::UucpPortLock: the lock file that programs sharing serial ports on Linux agree on (pppd, chat
// programs, minicom): "LCK..NAME" in /run/lock or /var/lock, holding the owner's pid as ten ASCII
// digits and a newline. A lock of a live process means the port is busy; a lock whose process is
// gone is stale and removed. The engine never waits for a lock and never takes one over.
#pragma once

#include <string>
#include <vector>

namespace qv {

class UucpPortLock {
  public:
    enum class Result {
        Acquired,     // our lock file is written; released by release() or the destructor
        Busy,         // another live process holds the port
        NotWritable,  // no lock directory we may write to: the port is used without a lock file
    };

    UucpPortLock() = default;
    UucpPortLock(const UucpPortLock&) = delete;
    UucpPortLock& operator=(const UucpPortLock&) = delete;
    ~UucpPortLock() { release(); }

    // "LCK..ttyUSB2" for "/dev/ttyUSB2"; "LCK..pts_4" for "/dev/pts/4".
    static std::string lockFileName(const std::string& devicePath);

    // Checks every directory for a live lock, then writes ours into the first one that exists.
    Result acquire(const std::string& devicePath, const std::vector<std::string>& directories,
                   std::string* reason);
    void release();

  private:
    std::string path_;
};

}  // namespace qv
