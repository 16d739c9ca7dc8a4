#include "SerialPort.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>

#include "GsmBackend.h"

namespace qv {

namespace {

bool exists(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0;
}

bool makeRaw(int fd) {
    termios settings{};
    if (::tcgetattr(fd, &settings) != 0) {
        return false;
    }
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

}  // namespace

std::string SerialPort::devicePath(const std::string& portPath) {
    // Only a real kernel name falls back: "/dev/cu./x" or "/dev/cu..." must not leave /dev.
    if (std::optional<std::string> name = gsmPortNameOfPath(portPath); name && !exists(portPath)) {
        return "/dev/" + *name;
    }
    return portPath;
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
    auto lock = std::make_unique<UucpPortLock>();
    std::string lockReason;
    if (lock->acquire(path, lockDirectories, &lockReason) == UucpPortLock::Result::Busy) {
        return fail(Failure::Busy, lockReason);
    }
    int fd = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        int error = errno;
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
    if (!makeRaw(fd)) {
        int error = errno;
        ::ioctl(fd, TIOCNXCL);
        ::close(fd);
        return fail(Failure::CannotOpen,
                    std::string("cannot set raw mode: ") + std::strerror(error));
    }
    *failure = Failure::None;
    return std::unique_ptr<SerialPort>(new SerialPort(fd, std::move(path), std::move(lock)));
}

SerialPort::SerialPort(int fd, std::string path, std::unique_ptr<UucpPortLock> lock)
    : fd_(fd), path_(std::move(path)), lock_(std::move(lock)) {}

SerialPort::~SerialPort() {
    ::ioctl(fd_, TIOCNXCL);
    ::close(fd_);  // also ends the flock
    lock_->release();
}

}  // namespace qv
