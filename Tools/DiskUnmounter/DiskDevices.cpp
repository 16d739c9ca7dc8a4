#include "DiskDevices.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "KernelDiskName.h"

namespace diskunmounter {

namespace {

namespace fs = std::filesystem;

bool parseNumber(std::string_view text, unsigned* value) {
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *value);
    return !text.empty() && error == std::errc() && end == text.data() + text.size();
}

// The "dev" attribute holds "MAJOR:MINOR\n".
std::optional<BlockDevice> readDevice(const fs::path& directory, const std::string& name) {
    std::ifstream file(directory / "dev");
    std::string line;
    if (!file || !std::getline(file, line)) {
        return std::nullopt;
    }
    std::size_t colon = line.find(':');
    BlockDevice device;
    device.name = name;
    if (colon == std::string::npos ||
        !parseNumber(std::string_view(line).substr(0, colon), &device.major) ||
        !parseNumber(std::string_view(line).substr(colon + 1), &device.minor)) {
        return std::nullopt;
    }
    return device;
}

// The "removable" attribute holds "1\n" or "0\n"; a few bytes are all that is looked at.
bool readRemovable(const fs::path& directory) {
    std::ifstream file(directory / "removable");
    char first = '0';
    return file && file.get(first) && first == '1';
}

}  // namespace

std::optional<DiskDevices> DiskDevices::read(const std::string& sysfsRoot, const std::string& name,
                                             std::string* error) {
    fs::path directory = fs::path(sysfsRoot) / "class" / "block" / name;
    std::optional<BlockDevice> disk = readDevice(directory, name);
    if (!disk) {
        if (error) {
            *error = name + " is not a block device";
        }
        return std::nullopt;
    }
    DiskDevices result;
    result.devices_.push_back(*disk);
    std::error_code ignored;
    result.isPartition_ = fs::exists(directory / "partition", ignored);
    if (result.isPartition_) {
        return result;
    }
    result.isRemovable_ = readRemovable(directory);
    // Partitions are subdirectories carrying a "partition" attribute; other subdirectories
    // (queue, holders, power, ...) are not devices.
    std::vector<BlockDevice> partitions;
    std::error_code listError;
    for (const fs::directory_entry& entry : fs::directory_iterator(directory, listError)) {
        std::string childName = entry.path().filename().string();
        if (!isPlainKernelName(childName) || !fs::exists(entry.path() / "partition", ignored)) {
            continue;
        }
        if (std::optional<BlockDevice> partition = readDevice(entry.path(), childName)) {
            partitions.push_back(*partition);
        }
    }
    std::sort(partitions.begin(), partitions.end(), [](const BlockDevice& a, const BlockDevice& b) {
        return a.major != b.major ? a.major < b.major : a.minor < b.minor;
    });
    result.devices_.insert(result.devices_.end(), partitions.begin(), partitions.end());
    return result;
}

const BlockDevice* DiskDevices::find(unsigned major, unsigned minor) const {
    for (const BlockDevice& device : devices_) {
        if (device.major == major && device.minor == minor) {
            return &device;
        }
    }
    return nullptr;
}

const BlockDevice* DiskDevices::findByDevicePath(const std::string& path) const {
    for (const BlockDevice& device : devices_) {
        if (path == "/dev/" + device.name) {
            return &device;
        }
    }
    return nullptr;
}

std::string DiskDevices::description() const {
    auto describe = [](const BlockDevice& device) {
        return device.name + " (" + std::to_string(device.major) + ":" +
               std::to_string(device.minor) + ")";
    };
    std::string text = describe(disk());
    if (isPartition_) {
        return text + ", a partition";
    }
    for (std::size_t i = 1; i < devices_.size(); ++i) {
        text += (i == 1 ? " with partitions " : ", ") + describe(devices_[i]);
    }
    return text;
}

}  // namespace diskunmounter
