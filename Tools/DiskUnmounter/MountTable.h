// The mount table of one mount namespace, read from the kernel's mountinfo format
// (/proc/self/mountinfo, described in proc(5)).
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace diskunmounter {

struct MountEntry {
    unsigned mountId = 0;
    unsigned parentId = 0;
    unsigned major = 0;  // st_dev of the filesystem; 0 for anonymous devices (btrfs, tmpfs, ...)
    unsigned minor = 0;
    std::string root;        // the directory of the filesystem mounted here ("/" unless a bind)
    std::string mountPoint;  // unescaped
    std::string fsType;
    std::string source;  // unescaped, "none" or the like for virtual filesystems
};

class MountTable {
  public:
    MountTable() = default;
    explicit MountTable(std::vector<MountEntry> entries) : entries_(std::move(entries)) {}

    // Parses mountinfo text. A line that does not have the kernel's layout makes the whole table
    // unreadable (nullopt, error names the line): a mount skipped silently could be one of ours.
    static std::optional<MountTable> parse(std::string_view text, std::string* error);
    // A table larger than this is refused (tens of thousands of mounts fit).
    static constexpr std::size_t kMaximumBytes = 16 * 1024 * 1024;
    // Reads and parses the regular file at `path`, at most `maximumBytes` of it: a larger file, a
    // FIFO, a device or a directory is refused with the reason in `error`.
    static std::optional<MountTable> read(const std::string& path, std::string* error,
                                          std::size_t maximumBytes = kMaximumBytes);

    // Undoes the kernel's octal escapes (\040 for a space, \011, \012, \134 for a backslash).
    // A backslash not followed by three octal digits of one byte stays as it is.
    static std::string unescape(std::string_view field);

    const std::vector<MountEntry>& entries() const { return entries_; }

    // A path for a message: in double quotes, with quotes, backslashes and control characters as
    // octal escapes, so that a mount point never breaks a message into two lines.
    static std::string quoted(std::string_view path);

  private:
    std::vector<MountEntry> entries_;
};

}  // namespace diskunmounter
