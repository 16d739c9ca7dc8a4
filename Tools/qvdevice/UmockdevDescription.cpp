#include "UmockdevDescription.h"

#include <libudev.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <optional>

#include "Foundation/Value.h"
#include "IOKit/UdevMapping.h"
#include "IdentifierMasker.h"

namespace qvdevice {

namespace {

std::string textOf(const char* value) {
    return value != nullptr ? std::string(value) : std::string();
}

struct UdevDeleter {
    void operator()(udev* handle) const { udev_unref(handle); }
    void operator()(udev_device* device) const { udev_device_unref(device); }
    void operator()(udev_enumerate* enumerate) const { udev_enumerate_unref(enumerate); }
};
template <typename T>
using UdevPtr = std::unique_ptr<T, UdevDeleter>;

// The whole attribute file, at most `limit` bytes; nullopt when it cannot be read.
std::optional<std::string> readAttribute(const std::string& path, std::size_t limit) {
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        return std::nullopt;
    }
    std::string content(limit, '\0');
    std::size_t size = std::fread(content.data(), 1, limit, file);
    bool failed = std::ferror(file) != 0;
    std::fclose(file);
    if (failed) {
        return std::nullopt;
    }
    content.resize(size);
    return content;
}

bool isText(const std::string& value) {
    return std::all_of(value.begin(), value.end(), [](unsigned char c) {
        return c == '\n' || c == '\t' || (c >= 0x20 && c != 0x7f);
    });
}

std::string hex(const std::string& bytes) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char byte : bytes) {
        out += kDigits[byte >> 4];
        out += kDigits[byte & 15];
    }
    return out;
}

// A text attribute as umockdev writes it: line ends as "\n", backslashes doubled.
std::string escaped(const std::string& value) {
    std::string out;
    for (char c : value) {
        if (c == '\n') {
            out += "\\n";
        } else if (c == '\\') {
            out += "\\\\";
        } else {
            out += c;
        }
    }
    return out;
}

// The udev usb_device whose location and IDs are those of the registry entry.
std::string sysPathOfEntry(udev* context, const qv::Value& properties) {
    const qv::Value& location = properties["locationID"];
    if (!location.isInteger()) {
        return {};
    }
    UdevPtr<udev_enumerate> enumerate(udev_enumerate_new(context));
    if (!enumerate) {
        return {};
    }
    udev_enumerate_add_match_subsystem(enumerate.get(), "usb");
    udev_enumerate_add_match_property(enumerate.get(), "DEVTYPE", "usb_device");
    udev_enumerate_scan_devices(enumerate.get());
    udev_list_entry* item = nullptr;
    udev_list_entry_foreach(item, udev_enumerate_get_list_entry(enumerate.get())) {
        std::string path = textOf(udev_list_entry_get_name(item));
        std::string name = path.substr(path.rfind('/') + 1);
        auto candidate = qv::stableLocationIDFromUSBName(name);
        if (candidate && static_cast<std::int64_t>(*candidate) == location.integerValue()) {
            return path;
        }
    }
    return {};
}

}  // namespace

void UmockdevDescription::addDevices(const qv::Registry& registry,
                                     const std::vector<io_registry_entry_t>& devices) {
    UdevPtr<udev> context;
    for (io_registry_entry_t device : devices) {
        if (!seen_.insert(device).second) {
            continue;
        }
        const qv::Value* properties = registry.entryProperties(device);
        if (properties == nullptr) {
            continue;
        }
        if (!context) {
            context.reset(udev_new());
            if (!context) {
                return;
            }
        }
        std::string sysPath = sysPathOfEntry(context.get(), *properties);
        if (sysPath.empty()) {
            continue;
        }
        // Everything below the device (its own path first), then its ancestors.
        UdevPtr<udev_enumerate> below(udev_enumerate_new(context.get()));
        UdevPtr<udev_device> top(udev_device_new_from_syspath(context.get(), sysPath.c_str()));
        if (!below || !top) {
            continue;
        }
        udev_enumerate_add_match_parent(below.get(), top.get());
        udev_enumerate_scan_devices(below.get());
        std::vector<std::string> paths;
        udev_list_entry* item = nullptr;
        udev_list_entry_foreach(item, udev_enumerate_get_list_entry(below.get())) {
            paths.push_back(textOf(udev_list_entry_get_name(item)));
        }
        std::sort(paths.begin(), paths.end(), qv::sysPathOrderLess);
        for (udev_device* parent = udev_device_get_parent(top.get()); parent != nullptr;
             parent = udev_device_get_parent(parent)) {
            paths.push_back(textOf(udev_device_get_syspath(parent)));
        }
        for (const auto& path : paths) {
            readDevice(path);
        }
    }
}

void UmockdevDescription::readDevice(const std::string& sysPath) {
    UdevPtr<udev> context(udev_new());
    if (!context) {
        return;
    }
    UdevPtr<udev_device> device(udev_device_new_from_syspath(context.get(), sysPath.c_str()));
    if (!device) {
        return;
    }
    Block block;
    block.devpath = textOf(udev_device_get_devpath(device.get()));
    if (block.devpath.empty() || !devpaths_.insert(block.devpath).second) {
        return;
    }
    std::string node = textOf(udev_device_get_devnode(device.get()));
    if (node.starts_with("/dev/")) {
        block.lines.push_back({'N', {}, node.substr(5)});
    }
    udev_list_entry* item = nullptr;
    udev_list_entry_foreach(item, udev_device_get_properties_list_entry(device.get())) {
        std::string key = textOf(udev_list_entry_get_name(item));
        if (key == "DEVPATH" || key == "ACTION" || key == "SEQNUM") {
            continue;
        }
        block.lines.push_back({'E', key, textOf(udev_list_entry_get_value(item))});
    }
    std::vector<std::string> attributes;
    udev_list_entry_foreach(item, udev_device_get_sysattr_list_entry(device.get())) {
        attributes.push_back(textOf(udev_list_entry_get_name(item)));
    }
    std::sort(attributes.begin(), attributes.end());
    for (const auto& name : attributes) {
        // Writing to "remove", "unbind" and the like is an action, and reading some is slow.
        if (name == "uevent" || name.find('/') != std::string::npos) {
            continue;
        }
        auto value = readAttribute(sysPath + "/" + name, kMaxAttributeSize);
        if (!value) {
            continue;
        }
        if (isText(*value)) {
            block.lines.push_back({'A', name, *value});
        } else {
            block.lines.push_back({'H', name, *value});
        }
    }
    char target[4096];
    ssize_t size = ::readlink((sysPath + "/driver").c_str(), target, sizeof target - 1);
    if (size > 0) {
        block.lines.push_back({'L', "driver", std::string(target, static_cast<std::size_t>(size))});
    }
    blocks_.push_back(std::move(block));
}

std::string UmockdevDescription::text(IdentifierMasker* masker) const {
    std::string out;
    for (const Block& block : blocks_) {
        if (!out.empty()) {
            out += '\n';
        }
        out += "P: " + block.devpath + "\n";
        for (const Line& line : block.lines) {
            std::string value = line.value;
            if (masker != nullptr && line.kind != 'H' && line.kind != 'L') {
                bool newline = value.ends_with('\n');
                std::string bare = newline ? value.substr(0, value.size() - 1) : value;
                qv::Value maskedValue = masker->maskValue(qv::Value(bare), line.key);
                value = maskedValue.stringValue() + (newline ? "\n" : "");
            }
            switch (line.kind) {
                case 'N':
                    out += "N: " + value + "\n";
                    break;
                case 'E':
                    out += "E: " + line.key + "=" + value + "\n";
                    break;
                case 'A':
                    out += "A: " + line.key + "=" + escaped(value) + "\n";
                    break;
                case 'H':
                    out += "H: " + line.key + "=" + hex(value) + "\n";
                    break;
                default:
                    out += "L: " + line.key + "=" + value + "\n";
                    break;
            }
        }
    }
    return out;
}

}  // namespace qvdevice
