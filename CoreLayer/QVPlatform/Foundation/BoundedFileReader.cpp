#include "BoundedFileReader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace qv {

namespace {

std::nullopt_t fail(std::string* reason, std::string text) {
    if (reason != nullptr) {
        *reason = std::move(text);
    }
    return std::nullopt;
}

}  // namespace

std::optional<std::string> readDescriptorUpTo(int fd, std::size_t limit, std::string* reason) {
    std::string bytes;
    char buffer[65536];
    for (;;) {
        const ssize_t count = ::read(fd, buffer, sizeof buffer);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            return fail(reason, std::strerror(errno));
        }
        if (count == 0) {
            return bytes;
        }
        if (static_cast<std::size_t>(count) > limit - bytes.size()) {
            return fail(reason, "larger than " + std::to_string(limit) + " bytes");
        }
        bytes.append(buffer, static_cast<std::size_t>(count));
    }
}

std::optional<std::string> readFileUpTo(const std::string& path, std::size_t limit, FileKinds kinds,
                                        std::string* reason) {
    // Opening a FIFO blocks until a writer comes; without a writer to wait for, do not wait.
    const int flags = O_RDONLY | O_CLOEXEC | (kinds == FileKinds::RegularOnly ? O_NONBLOCK : 0);
    const int fd = ::open(path.c_str(), flags);
    if (fd < 0) {
        // The system's "Too many levels of symbolic links" hides that the links go round.
        return fail(reason, errno == ELOOP ? "is a loop of symbolic links" : std::strerror(errno));
    }
    struct stat info {};
    std::optional<std::string> bytes;
    if (::fstat(fd, &info) != 0) {
        bytes = fail(reason, std::strerror(errno));
    } else if (S_ISDIR(info.st_mode)) {
        bytes = fail(reason, "is a directory");
    } else if (kinds == FileKinds::RegularOnly && !S_ISREG(info.st_mode)) {
        bytes = fail(reason, "is not a regular file");
    } else {
        bytes = readDescriptorUpTo(fd, limit, reason);
    }
    ::close(fd);
    return bytes;
}

}  // namespace qv
