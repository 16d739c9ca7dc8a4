#include "RulesFileIO.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <optional>
#include <utility>
#include <vector>

#include "Foundation/BoundedFileReader.h"
#include "Foundation/PropertyList.h"
#include "Foundation/UTF8.h"
#include "Rules/Decryptor.h"
#include "Rules/NSData_Cipher.h"
#include "Rules/QVDeviceFilter.h"

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

namespace {

// What a replaced file keeps, or a new one gets.
struct OutputFileMode {
    mode_t mode = 0;
    std::optional<std::pair<uid_t, gid_t>> owner;  // of the file replaced
};

// The mode for `path`, or nothing (and `error`) when what is there must not be replaced.
std::optional<OutputFileMode> outputFileMode(const std::string& path, mode_t newFileMode,
                                             std::string& error) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) {
        if (errno == ENOENT) {
            return OutputFileMode{newFileMode & ~currentUmask(), std::nullopt};
        }
        error = systemError("cannot look at", path);
        return std::nullopt;
    }
    if (S_ISLNK(info.st_mode)) {
        error = path + " is a symbolic link; it is not replaced (name the file it points to)";
        return std::nullopt;
    }
    if (!S_ISREG(info.st_mode)) {
        error = path +
                " is not a regular file (a directory, device node, FIFO or socket); it is "
                "not replaced";
        return std::nullopt;
    }
    return OutputFileMode{static_cast<mode_t>(info.st_mode & 07777),
                          std::make_pair(info.st_uid, info.st_gid)};
}

}  // namespace

std::optional<qv::Value> loadRulesFile(const std::string& path, std::string& error) {
    std::string reason;
    const std::optional<std::string> bytes =
        qv::readFileUpTo(path, encipheredSizeForLength(qv::kMaxPropertyListSize),
                         qv::FileKinds::RegularOnly, &reason);
    if (!bytes) {
        error = path + ": " + reason;
        return std::nullopt;
    }
    const qv::Data data(bytes->begin(), bytes->end());
    qv::Value rules = Decryptor::decryptor()->decryptDataIfNeededAndGetPropList(
        data, QVDeviceFilter::kRulesPassPhrase);
    if (rules.isArray()) {
        return rules;
    }
    if (!qv::isValidUTF8(*bytes) &&
        !dataDecryptedWithPass(data, QVDeviceFilter::kRulesPassPhrase)) {
        error = path + ": neither UTF-8 text nor enciphered with the framework's pass phrase";
    } else {
        error = path + ": not a plain or enciphered rules file (a list of rule dictionaries)";
    }
    return std::nullopt;
}

RulesOutput writeRulesOutputAtomically(const std::string& path, const qv::Data& bytes,
                                       std::ostream& stdoutStream, std::string& error,
                                       mode_t newFileMode) {
    if (path == "-") {
        stdoutStream.write(reinterpret_cast<const char*>(bytes.data()),
                           static_cast<std::streamsize>(bytes.size()));
        stdoutStream.flush();
        if (!stdoutStream) {
            error = "cannot write standard output";
            return RulesOutput::Failed;
        }
        return RulesOutput::Written;
    }
    const std::optional<OutputFileMode> mode = outputFileMode(path, newFileMode, error);
    if (!mode) {
        return RulesOutput::Refused;
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
        return RulesOutput::Failed;
    }
    const std::string temporary = name.data();
    // mkstemp makes the file private; give it the mode of the file it replaces, or the one a new
    // file gets. The owner too, where the system lets us (as root, or the same owner).
    if (mode->owner) {
        [[maybe_unused]] int ignored = ::fchown(fd, mode->owner->first, mode->owner->second);
    }
    bool ok = ::fchmod(fd, mode->mode) == 0 && writeAll(fd, bytes) && ::fsync(fd) == 0;
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
        return RulesOutput::Failed;
    }
    return RulesOutput::Written;
}

}  // namespace qvdevice
