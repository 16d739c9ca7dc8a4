// qv::SerialPort: one modem port opened for the AT engine. The framework names ports the Mac way,
// "/dev/cu.NAME": that node is used when it exists, otherwise "/dev/NAME"; any other absolute path
// (a pty such as /dev/pts/4) is used as it is. The port is opened O_NOCTTY | O_NONBLOCK |
// O_CLOEXEC, only when it is a character device and a terminal, put in raw 8N1 mode with CLOCAL
// and no flow control, and held exclusively (TIOCEXCL and flock) with a UUCP lock file while open.
// A port another program holds is "busy" at once: never a wait, never a steal.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "UucpPortLock.h"

namespace qv {

class SerialPort {
  public:
    enum class Failure { None, NoSuchPort, NotASerialPort, Busy, CannotOpen };

    // The device node a framework port path stands for.
    static std::string devicePath(const std::string& portPath);

    // The opened port, or nullptr with the failure and the reason in words.
    static std::unique_ptr<SerialPort> open(const std::string& portPath,
                                            const std::vector<std::string>& lockDirectories,
                                            Failure* failure, std::string* reason);

    SerialPort(const SerialPort&) = delete;
    SerialPort& operator=(const SerialPort&) = delete;
    ~SerialPort();

    int fd() const { return fd_; }
    const std::string& path() const { return path_; }

  private:
    SerialPort(int fd, std::string path, std::unique_ptr<UucpPortLock> lock);

    int fd_;
    std::string path_;
    std::unique_ptr<UucpPortLock> lock_;
};

}  // namespace qv
