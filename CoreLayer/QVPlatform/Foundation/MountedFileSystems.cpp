#include "MountedFileSystems.h"

#include <algorithm>
#include <mutex>
#include <sstream>

#include "BoundedFileReader.h"

namespace qv {

namespace {

// A mount table this large is no mount table.
constexpr std::size_t kMaxMountInfoSize = 16u << 20;

std::mutex gTableMutex;
std::shared_ptr<MountedFileSystems> gTable;

std::vector<std::string> splitOnBlanks(const std::string& line) {
    std::vector<std::string> fields;
    std::istringstream stream(line);
    std::string field;
    while (stream >> field) {
        fields.push_back(field);
    }
    return fields;
}

bool isOctal(char c) {
    return c >= '0' && c <= '7';
}

}  // namespace

MountedFileSystems& MountedFileSystems::shared() {
    std::lock_guard<std::mutex> lock(gTableMutex);
    if (!gTable) {
        gTable = std::make_shared<KernelMountedFileSystems>();
    }
    return *gTable;
}

void MountedFileSystems::setShared(std::shared_ptr<MountedFileSystems> table) {
    std::lock_guard<std::mutex> lock(gTableMutex);
    gTable = std::move(table);
}

std::shared_ptr<MountedFileSystems> MountedFileSystems::installed() {
    std::lock_guard<std::mutex> lock(gTableMutex);
    return gTable;
}

std::string KernelMountedFileSystems::unescape(const std::string& field) {
    std::string out;
    for (std::size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size() && isOctal(field[i + 1]) &&
            isOctal(field[i + 2]) && isOctal(field[i + 3]) && field[i + 1] <= '3') {
            out.push_back(static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 +
                                            (field[i + 3] - '0')));
            i += 3;
        } else {
            out.push_back(field[i]);
        }
    }
    return out;
}

std::vector<MountedFileSystem> KernelMountedFileSystems::parse(const std::string& text) {
    std::vector<MountedFileSystem> mounts;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        // ID PARENT MAJ:MIN ROOT MOUNTPOINT OPTIONS [OPTIONAL...] - FSTYPE SOURCE SUPEROPTIONS
        std::vector<std::string> fields = splitOnBlanks(line);
        auto separator = std::find(fields.begin(), fields.end(), "-");
        if (fields.size() < 6 || separator == fields.end() || separator - fields.begin() < 6 ||
            fields.end() - separator < 3) {
            continue;
        }
        mounts.push_back({unescape(*(separator + 2)), unescape(fields[4])});
    }
    return mounts;
}

std::vector<MountedFileSystem> KernelMountedFileSystems::mounts() {
    std::optional<std::string> text =
        readFileUpTo(path_, kMaxMountInfoSize, FileKinds::AnyReadable, nullptr);
    return text ? parse(*text) : std::vector<MountedFileSystem>{};
}

std::size_t FixedMountedFileSystems::unmountDevice(const std::string& device) {
    return std::erase_if(mounts_, [&](const MountedFileSystem& m) { return m.device == device; });
}

}  // namespace qv
