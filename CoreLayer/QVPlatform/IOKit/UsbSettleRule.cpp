#include "UsbSettleRule.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace qv {

namespace {

bool isBelow(const std::string& path, const std::string& ancestor) {
    return path.size() > ancestor.size() && path.compare(0, ancestor.size(), ancestor) == 0 &&
           path[ancestor.size()] == '/';
}

bool isUSB(const UdevDeviceFacts& facts, std::string_view devtype) {
    return facts.subsystem == "usb" && facts.devtype == devtype;
}

}  // namespace

unsigned declaredInterfaceCount(const UdevDeviceFacts& facts) {
    auto it = facts.attributes.find("bNumInterfaces");
    if (it == facts.attributes.end()) {
        return 0;
    }
    std::string_view digits = it->second;
    while (!digits.empty() && (digits.front() == ' ' || digits.front() == '\t')) {
        digits.remove_prefix(1);
    }
    while (!digits.empty() && (digits.back() == ' ' || digits.back() == '\n')) {
        digits.remove_suffix(1);
    }
    if (digits.empty() || digits.size() > 3) {
        return 0;
    }
    unsigned count = 0;
    for (char c : digits) {
        if (c < '0' || c > '9') {
            return 0;
        }
        count = count * 10 + static_cast<unsigned>(c - '0');
    }
    return count;
}

UsbSettleRule::UsbSettleRule(RunLoop& loop, Publish publish)
    : loop_(loop), publish_(std::move(publish)) {}

UsbSettleRule::~UsbSettleRule() {
    clear();
}

void UsbSettleRule::setTimes(double quietTime, double longest) {
    quietTime_ = std::max(0.0, quietTime);
    longestSettle_ = std::max(quietTime_, longest);
}

UsbSettleRule::SettlingMap::iterator UsbSettleRule::settlingDeviceOf(const std::string& sysPath) {
    for (auto it = settling_.begin(); it != settling_.end(); ++it) {
        if (it->first == sysPath || isBelow(sysPath, it->first)) {
            return it;
        }
    }
    return settling_.end();
}

bool UsbSettleRule::offer(const std::string& sysPath, const UdevDeviceFacts& facts,
                          bool hotPlugged) {
    auto it = settlingDeviceOf(sysPath);
    if (it != settling_.end()) {
        const std::string devicePath = it->first;
        it->second.nodes[sysPath] = facts;
        if (hasSettled(devicePath, it->second)) {
            publish(devicePath);
        } else {
            armTimer(devicePath, it->second);
        }
        return true;
    }
    // Every new USB device settles, one behind a hub as much as one in a root port.
    if (!hotPlugged || !isUSB(facts, "usb_device")) {
        return false;
    }
    SettlingDevice& device = settling_[sysPath];
    device.declaredInterfaces = declaredInterfaceCount(facts);
    device.firstEvent = loop_.now();
    device.nodes[sysPath] = facts;
    armTimer(sysPath, device);
    return true;
}

bool UsbSettleRule::hasSettled(const std::string& devicePath, const SettlingDevice& device) const {
    if (device.declaredInterfaces == 0) {
        return false;
    }
    unsigned bound = 0;
    for (const auto& [path, facts] : device.nodes) {
        if (!isUSB(facts, "usb_interface") || parentSysPath(path) != devicePath) {
            continue;
        }
        if (facts.driver.empty()) {
            return false;
        }
        ++bound;
    }
    return bound >= device.declaredInterfaces;
}

void UsbSettleRule::armTimer(const std::string& devicePath, SettlingDevice& device) {
    if (device.timer) {
        device.timer->invalidate();
    }
    double delay = std::min(quietTime_, device.firstEvent + longestSettle_ - loop_.now());
    std::weak_ptr<int> alive = lifetime_;
    device.timer =
        loop_.scheduleTimer(std::max(0.0, delay), false, [this, alive, devicePath](Timer&) {
            if (!alive.expired()) {
                publish(devicePath);
            }
        });
}

void UsbSettleRule::publish(const std::string& devicePath) {
    auto it = settling_.find(devicePath);
    if (it == settling_.end()) {
        return;
    }
    // Out of the map before anyone hears of it: publishing may offer or remove again.
    SettlingDevice device = std::move(it->second);
    settling_.erase(it);
    if (device.timer) {
        device.timer->invalidate();
    }
    std::vector<Node> nodes;
    nodes.reserve(device.nodes.size());
    for (auto& [path, facts] : device.nodes) {
        nodes.push_back(Node{path, std::move(facts)});
    }
    publish_(std::move(nodes));
}

bool UsbSettleRule::remove(const std::string& sysPath) {
    auto it = settlingDeviceOf(sysPath);
    if (it == settling_.end()) {
        return false;
    }
    // Gone before it was ever announced: nobody hears of it.
    if (it->first == sysPath) {
        if (it->second.timer) {
            it->second.timer->invalidate();
        }
        settling_.erase(it);
        return true;
    }
    std::erase_if(it->second.nodes, [&](const auto& node) {
        return node.first == sysPath || isBelow(node.first, sysPath);
    });
    return true;
}

void UsbSettleRule::clear() {
    for (auto& [path, device] : settling_) {
        if (device.timer) {
            device.timer->invalidate();
        }
    }
    settling_.clear();
}

}  // namespace qv
