#include "UucpPortLock.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <limits>

namespace qv {

namespace {

constexpr std::size_t kMaxLockFileBytes = 128;

enum class Owner { None, Live, Stale, Unreadable };

// Who holds the lock file at `path`: ASCII pid (HDB style) or a binary 4-byte pid (old UUCP).
Owner ownerOf(const std::string& path, pid_t* pidOut) {
    int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        return errno == ENOENT ? Owner::None : Owner::Unreadable;
    }
    char buffer[kMaxLockFileBytes];
    ssize_t size = ::read(fd, buffer, sizeof buffer);
    ::close(fd);
    if (size <= 0) {
        return Owner::Unreadable;
    }
    long pid = 0;
    if (size == 4) {
        std::int32_t binary = 0;
        std::memcpy(&binary, buffer, sizeof binary);
        pid = binary;
    } else {
        const char* begin = buffer;
        const char* end = buffer + size;
        while (begin < end && (*begin == ' ' || *begin == '\t')) {
            ++begin;
        }
        auto [next, error] = std::from_chars(begin, end, pid);
        if (error != std::errc() || next == begin) {
            return Owner::Unreadable;
        }
    }
    if (pid <= 0) {
        return Owner::Unreadable;
    }
    if (pid > std::numeric_limits<pid_t>::max()) {
        return Owner::Stale;  // no process can have it
    }
    *pidOut = static_cast<pid_t>(pid);
    if (pid == ::getpid()) {
        return Owner::Live;  // another part of this very process talks on the port
    }
    return ::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM ? Owner::Live : Owner::Stale;
}

bool isDirectory(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

}  // namespace

std::string UucpPortLock::lockFileName(const std::string& devicePath) {
    std::string name = devicePath;
    if (name.starts_with("/dev/")) {
        name.erase(0, 5);
    } else if (std::size_t slash = name.rfind('/'); slash != std::string::npos) {
        name.erase(0, slash + 1);
    }
    for (char& c : name) {
        if (c == '/') {
            c = '_';
        }
    }
    return "LCK.." + name;
}

UucpPortLock::Result UucpPortLock::acquire(const std::string& devicePath,
                                           const std::vector<std::string>& directories,
                                           std::string* reason) {
    release();
    std::string name = lockFileName(devicePath);
    std::string target;
    for (const std::string& directory : directories) {
        if (!isDirectory(directory)) {
            continue;
        }
        std::string path = directory + "/" + name;
        pid_t pid = 0;
        switch (ownerOf(path, &pid)) {
            case Owner::Live:
                *reason = "busy: locked by process " + std::to_string(pid) + " (" + path + ")";
                return Result::Busy;
            case Owner::Unreadable:
                *reason = "busy: lock file " + path + " cannot be read";
                return Result::Busy;
            case Owner::Stale:
                ::unlink(path.c_str());
                break;
            case Owner::None:
                break;
        }
        if (target.empty()) {
            target = path;
        }
    }
    if (target.empty()) {
        return Result::NotWritable;
    }
    int fd = ::open(target.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0) {
        if (errno == EEXIST) {
            *reason = "busy: another process locked it just now (" + target + ")";
            return Result::Busy;
        }
        return Result::NotWritable;
    }
    char text[16];
    int length = std::snprintf(text, sizeof text, "%10d\n", static_cast<int>(::getpid()));
    bool written = ::write(fd, text, static_cast<std::size_t>(length)) == length;
    ::close(fd);
    if (!written) {
        ::unlink(target.c_str());
        return Result::NotWritable;
    }
    path_ = target;
    return Result::Acquired;
}

void UucpPortLock::release() {
    if (!path_.empty()) {
        ::unlink(path_.c_str());
        path_.clear();
    }
}

}  // namespace qv
