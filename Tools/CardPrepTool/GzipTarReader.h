// Reads one member of a gzip-compressed tar archive (usb-modeswitch-data ships its device
// configurations as such a pack), never more than a limit, without unpacking anything to disk.
#pragma once

#include <optional>
#include <string>

namespace cardprep {

class GzipTarReader {
  public:
    // The uncompressed archive may not grow past this.
    static constexpr std::size_t kMaxArchiveSize = 64u << 20;

    // The text of the regular file `member` in the archive at `path`; nullopt when the archive
    // has no such member, or with `error` set when the archive cannot be read.
    static std::optional<std::string> readMember(const std::string& path, const std::string& member,
                                                 std::string* error);
    // The same on archive bytes already in memory (still compressed).
    static std::optional<std::string> findMember(const std::string& compressed,
                                                 const std::string& member, std::string* error);
    // The uncompressed bytes of gzip data; nullopt with `error` set when they are not gzip data or
    // grow past kMaxArchiveSize.
    static std::optional<std::string> gunzip(const std::string& compressed, std::string* error);
};

}  // namespace cardprep
