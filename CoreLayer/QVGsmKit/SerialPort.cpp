#include "SerialPort.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <optional>
#include <sstream>
#include <utility>

#include "Foundation/Logging.h"
#include "GsmBackend.h"

namespace qv {

namespace {

bool exists(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0;
}

std::string activeConsoles() {
    std::ifstream file("/sys/class/tty/console/active");
    std::string text;
    std::getline(file, text);
    return text.substr(0, 4096);
}

bool isOwnTerminal(dev_t device) {
    for (int fd : {0, 1, 2}) {
        struct stat info {};
        if (::isatty(fd) && ::fstat(fd, &info) == 0 && S_ISCHR(info.st_mode) &&
            info.st_rdev == device) {
            return true;
        }
    }
    return false;
}

bool makeRaw(int fd, termios* saved) {
    termios settings{};
    if (::tcgetattr(fd, &settings) != 0) {
        return false;
    }
    *saved = settings;
    ::cfmakeraw(&settings);
    settings.c_cflag &= ~static_cast<tcflag_t>(CSTOPB | PARENB | CSIZE | CRTSCTS);
    settings.c_cflag |= CS8 | CLOCAL | CREAD;
    settings.c_iflag &= ~static_cast<tcflag_t>(IXON | IXOFF | IXANY);
    settings.c_cc[VMIN] = 1;  // with O_NONBLOCK: EAGAIN when empty, 0 only on hang-up
    settings.c_cc[VTIME] = 0;
    ::cfsetispeed(&settings, B115200);
    ::cfsetospeed(&settings, B115200);
    if (::tcsetattr(fd, TCSANOW, &settings) != 0) {
        return false;
    }
    // Whatever the modem said before we came is nobody's answer.
    ::tcflush(fd, TCIOFLUSH);
    return true;
}

// What a user who may not open the port lacks, for the framework's log: the port's group (dialout
// on Debian) or the access the shipped udev rule gives the user at the seat.
std::string permissionAdvice(const std::string& path, gid_t group) {
    std::string groupName = std::to_string(group);
    struct group entry {};
    struct group* found = nullptr;
    char buffer[1024];
    if (::getgrgid_r(group, &entry, buffer, sizeof buffer, &found) == 0 && found != nullptr) {
        groupName = found->gr_name;
    }
    return "no permission to open " + path +
           ": this user needs read and write access to it. The udev rule installed with the "
           "framework gives it to the user at the seat (systemd-logind); without logind, add the "
           "user to the port's group \"" +
           groupName + "\" (usermod -aG " + groupName + " USER, then log in again)";
}

}  // namespace

std::string SerialPort::devicePath(const std::string& portPath) {
    // Only a real kernel name falls back: "/dev/cu./x" or "/dev/cu..." must not leave /dev.
    if (std::optional<std::string> name = gsmPortNameOfPath(portPath); name && !exists(portPath)) {
        return "/dev/" + *name;
    }
    return portPath;
}

bool SerialPort::isConsole(dev_t device, const std::string& name,
                           const std::string& activeConsoles) {
    unsigned int major = ::major(device);
    unsigned int minor = ::minor(device);
    if (major == 5 && minor <= 2) {
        return true;  // /dev/tty, /dev/console, /dev/ptmx
    }
    if (major == 4 && minor < 64) {
        return true;  // the virtual consoles tty0..tty63
    }
    std::istringstream words(activeConsoles);
    std::string word;
    while (words >> word) {
        if (word == name) {
            return true;
        }
    }
    return false;
}

std::unique_ptr<SerialPort> SerialPort::open(const std::string& portPath,
                                             const std::vector<std::string>& lockDirectories,
                                             Failure* failure, std::string* reason) {
    std::string path = devicePath(portPath);
    auto fail = [&](Failure what, std::string why) {
        *failure = what;
        *reason = path + ": " + why;
        return nullptr;
    };
    if (path.empty() || path.front() != '/') {
        return fail(Failure::NoSuchPort, "not an absolute path");
    }
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
        return fail(errno == ENOENT ? Failure::NoSuchPort : Failure::CannotOpen,
                    std::strerror(errno));
    }
    if (!S_ISCHR(info.st_mode)) {
        return fail(Failure::NotASerialPort, "not a character device");
    }
    std::string name = path.starts_with("/dev/") ? path.substr(5) : path;
    if (isConsole(info.st_rdev, name, activeConsoles()) || isOwnTerminal(info.st_rdev)) {
        return fail(Failure::Console,
                    "a console or our own terminal, not a modem port: not opened");
    }
    auto lock = std::make_unique<UucpPortLock>();
    std::string lockReason;
    if (lock->acquire(path, lockDirectories, &lockReason) == UucpPortLock::Result::Busy) {
        return fail(Failure::Busy, lockReason);
    }
    int fd = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        int error = errno;
        if (error == EACCES || error == EPERM) {
            std::string advice = permissionAdvice(path, info.st_gid);
            logRecognition("AT engine: %s", advice);
            *failure = Failure::CannotOpen;
            *reason = advice;
            return nullptr;
        }
        return fail(
            error == EBUSY ? Failure::Busy : Failure::CannotOpen,
            error == EBUSY ? "busy: held exclusively by another program" : std::strerror(error));
    }
    if (!::isatty(fd)) {
        ::close(fd);
        return fail(Failure::NotASerialPort, "not a terminal");
    }
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        ::close(fd);
        return fail(Failure::Busy, "busy: held exclusively by another program");
    }
    ::ioctl(fd, TIOCEXCL);
    termios saved{};
    if (!makeRaw(fd, &saved)) {
        int error = errno;
        ::ioctl(fd, TIOCNXCL);
        ::close(fd);
        return fail(Failure::CannotOpen,
                    std::string("cannot set raw mode: ") + std::strerror(error));
    }
    *failure = Failure::None;
    return std::unique_ptr<SerialPort>(new SerialPort(fd, std::move(path), std::move(lock), saved));
}

SerialPort::SerialPort(int fd, std::string path, std::unique_ptr<UucpPortLock> lock, termios saved)
    : fd_(fd), saved_(saved), path_(std::move(path)), lock_(std::move(lock)) {}

SerialPort::~SerialPort() {
    // The port's settings as we found them, for whoever uses it next (a hung-up port refuses:
    // nothing to put back then).
    ::tcsetattr(fd_, TCSANOW, &saved_);
    ::ioctl(fd_, TIOCNXCL);
    ::close(fd_);  // also ends the flock
    lock_->release();
}

}  // namespace qv
