// qv::SerialPort: one modem port opened for the AT engine. The framework names ports the Mac way,
// "/dev/cu.NAME": that node is used when it exists, otherwise "/dev/NAME"; any other absolute path
// (a pty such as /dev/pts/4) is used as it is. The port is opened O_NOCTTY | O_NONBLOCK |
// O_CLOEXEC, only when it is a character device and a terminal, put in raw 8N1 mode with CLOCAL
// and no flow control, and held exclusively (TIOCEXCL and flock) with a UUCP lock file while open.
// A port another program holds is "busy" at once: never a wait, never a steal. The port's own
// terminal settings are put back when it is closed.
//
// Consoles are never opened: /dev/tty, /dev/console and /dev/ptmx, the virtual consoles
// (/dev/tty0 to /dev/tty63, major 4 below minor 64, as the kernel's devices.txt assigns them),
// any terminal the kernel names as its active console (/sys/class/tty/console/active, such as
// ttyS0 on a serial console) and the terminals of our own standard input, output and error.
// Writing AT commands there would type into somebody's session.
#pragma once

#include <sys/types.h>
#include <termios.h>

#include <memory>
#include <string>
#include <vector>

#include "UucpPortLock.h"

namespace qv {

class SerialPort {
  public:
    enum class Failure { None, NoSuchPort, NotASerialPort, Busy, CannotOpen, Console };

    // The device node a framework port path stands for.
    static std::string devicePath(const std::string& portPath);

    // The opened port, or nullptr with the failure and the reason in words.
    static std::unique_ptr<SerialPort> open(const std::string& portPath,
                                            const std::vector<std::string>& lockDirectories,
                                            Failure* failure, std::string* reason);

    // Whether the character device `device` (named `name` under /dev) is a console as above;
    // `activeConsoles` is the text of /sys/class/tty/console/active ("tty0 ttyS0").
    static bool isConsole(dev_t device, const std::string& name, const std::string& activeConsoles);

    SerialPort(const SerialPort&) = delete;
    SerialPort& operator=(const SerialPort&) = delete;
    ~SerialPort();

    int fd() const { return fd_; }
    const std::string& path() const { return path_; }

  private:
    SerialPort(int fd, std::string path, std::unique_ptr<UucpPortLock> lock, termios saved);

    int fd_;
    termios saved_;
    std::string path_;
    std::unique_ptr<UucpPortLock> lock_;
};

}  // namespace qv
