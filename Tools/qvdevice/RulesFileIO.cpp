#include "RulesFileIO.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <vector>

#include "Foundation/BoundedFileReader.h"

namespace qvdevice {

namespace {

std::string systemError(const std::string& what, const std::string& path) {
    return what + " " + path + ": " + std::strerror(errno);
}

bool writeAll(int fd, const qv::Data& bytes) {
    std::size_t written = 0;
    while (written < bytes.size()) {
        ssize_t count = ::write(fd, bytes.data() + written, bytes.size() - written);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return false;
        }
        written += static_cast<std::size_t>(count);
    }
    return true;
}

mode_t currentUmask() {
    mode_t mask = ::umask(0);
    ::umask(mask);
    return mask;
}

}  // namespace

std::optional<qv::Data> readRulesInput(const std::string& path, std::size_t limit,
                                       std::string& error) {
    const bool standardInput = path == "-";
    std::string reason;
    const std::optional<std::string> bytes =
        standardInput ? qv::readDescriptorUpTo(STDIN_FILENO, limit, &reason)
                      : qv::readFileUpTo(path, limit, qv::FileKinds::AnyReadable, &reason);
    if (!bytes) {
        error =
            "cannot read " + (standardInput ? std::string("standard input") : path) + ": " + reason;
        return std::nullopt;
    }
    return qv::Data(bytes->begin(), bytes->end());
}

bool writeRulesOutputAtomically(const std::string& path, const qv::Data& bytes,
                                std::ostream& stdoutStream, std::string& error) {
    if (path == "-") {
        stdoutStream.write(reinterpret_cast<const char*>(bytes.data()),
                           static_cast<std::streamsize>(bytes.size()));
        stdoutStream.flush();
        if (!stdoutStream) {
            error = "cannot write standard output";
            return false;
        }
        return true;
    }
    std::filesystem::path target(path);
    std::filesystem::path directory = target.parent_path();
    std::string pattern = (directory.empty() ? std::filesystem::path(".") : directory).string() +
                          "/." + target.filename().string() + ".tmp-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    int fd = ::mkstemp(name.data());
    if (fd < 0) {
        error = systemError("cannot create a temporary file in", directory.string());
        return false;
    }
    const std::string temporary = name.data();
    // mkstemp makes the file private; give it the mode a plain create would have.
    bool ok = ::fchmod(fd, 0666 & ~currentUmask()) == 0 && writeAll(fd, bytes) && ::fsync(fd) == 0;
    int savedErrno = errno;
    if (::close(fd) != 0 && ok) {
        ok = false;
        savedErrno = errno;
    }
    if (ok && ::rename(temporary.c_str(), path.c_str()) != 0) {
        savedErrno = errno;
        ok = false;
    }
    if (!ok) {
        ::unlink(temporary.c_str());
        errno = savedErrno;
        error = systemError("cannot write", path);
        return false;
    }
    return true;
}

}  // namespace qvdevice
