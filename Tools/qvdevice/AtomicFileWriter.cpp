#include "AtomicFileWriter.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <vector>

namespace qvdevice {

namespace {

std::string directoryOf(const std::string& path) {
    std::filesystem::path parent = std::filesystem::path(path).parent_path();
    return parent.empty() ? std::string(".") : parent.string();
}

bool fail(std::string* error, const std::string& path, int code) {
    if (error != nullptr) {
        *error = path + ": " + std::strerror(code);
    }
    return false;
}

}  // namespace

bool canWriteFileAt(const std::string& path, std::string* error) {
    std::error_code ec;
    if (path.empty() || std::filesystem::is_directory(path, ec)) {
        if (error != nullptr) {
            *error = path + ": not a file name";
        }
        return false;
    }
    if (!std::filesystem::is_directory(directoryOf(path), ec)) {
        return fail(error, path, ENOENT);
    }
    if (::access(directoryOf(path).c_str(), W_OK) != 0) {
        return fail(error, path, errno);
    }
    return true;
}

bool writeFileAtomically(const std::string& path, const std::string& text, std::string* error) {
    if (!canWriteFileAt(path, error)) {
        return false;
    }
    // Appended piece by piece: GCC 12 at -O3 warns falsely about "." + a string.
    std::string hidden = ".";
    hidden += std::filesystem::path(path).filename().string();
    hidden += ".XXXXXX";
    std::string pattern = (std::filesystem::path(directoryOf(path)) / hidden).string();
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    int fd = ::mkostemp(name.data(), O_CLOEXEC);
    if (fd < 0) {
        return fail(error, path, errno);
    }
    const std::string temporary(name.data());
    auto abandon = [&](int code) {
        ::close(fd);
        ::unlink(temporary.c_str());
        return fail(error, path, code);
    };
    std::size_t written = 0;
    while (written < text.size()) {
        ssize_t size = ::write(fd, text.data() + written, text.size() - written);
        if (size < 0 && errno == EINTR) {
            continue;
        }
        if (size <= 0) {
            return abandon(size < 0 ? errno : EIO);
        }
        written += static_cast<std::size_t>(size);
    }
    // A recording is the user's to share: readable as any file they make (mkstemp gave 0600).
    mode_t mask = ::umask(0);
    ::umask(mask);
    if (::fchmod(fd, 0666 & ~mask) != 0 || ::fsync(fd) != 0) {
        return abandon(errno);
    }
    if (::close(fd) != 0) {
        int code = errno;
        ::unlink(temporary.c_str());
        return fail(error, path, code);
    }
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        int code = errno;
        ::unlink(temporary.c_str());
        return fail(error, path, code);
    }
    return true;
}

}  // namespace qvdevice
