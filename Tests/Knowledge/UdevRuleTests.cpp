// The shipped udev rule against the built-in table: the user at the seat gets the serial ports and
// the USB device node of every USB stick the framework watches, and the rule's jumps all land.
#include <gtest/gtest.h>
#include <algorithm>
#include <array>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <utility>

#include "QVDeviceKnowledge/QVDeviceTables.h"

namespace {

const std::string kRule =
    QV_SOURCE_DIR "/CoreLayer/QVDeviceObserver/Resources/70-qvdeviceobserver.rules";

using Pair = std::pair<std::uint32_t, std::uint32_t>;

struct UaccessRule {
    std::set<Pair> ports;  // matched on the tty's USB ancestor (ATTRS)
    std::set<Pair> nodes;  // matched on the USB device itself (ATTR)
    std::set<std::string> labels;
    std::set<std::string> gotos;
    std::string error;
};

// `KEY{idVendor}=="vvvv", KEY{idProduct}=="pppp|...", TAG+="uaccess"` with KEY ATTR or ATTRS.
bool readGrant(const std::string& line, std::array<std::string, 4>* match) {
    const std::string key = line.starts_with("ATTRS{") ? "ATTRS" : "ATTR";
    const std::string vendorStart = key + "{idVendor}==\"";
    const std::string productStart = "\", " + key + "{idProduct}==\"";
    const std::string tail = "\", TAG+=\"uaccess\"";
    if (!line.starts_with(vendorStart) || !line.ends_with(tail) ||
        line.size() < vendorStart.size() + 4 + productStart.size() + tail.size()) {
        return false;
    }
    std::string vendor = line.substr(vendorStart.size(), 4);
    if (line.compare(vendorStart.size() + 4, productStart.size(), productStart) != 0) {
        return false;
    }
    std::size_t productsAt = vendorStart.size() + 4 + productStart.size();
    std::string products = line.substr(productsAt, line.size() - tail.size() - productsAt);
    auto hexOrBar = [](const std::string& text, bool bar) {
        return !text.empty() && std::all_of(text.begin(), text.end(), [bar](char c) {
            return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (bar && c == '|');
        });
    };
    if (!hexOrBar(vendor, false) || !hexOrBar(products, true)) {
        return false;
    }
    *match = {line, key, vendor, products};
    return true;
}

UaccessRule readRule() {
    UaccessRule rule;
    std::ifstream file(kRule);
    if (!file) {
        rule.error = "cannot read " + kRule;
        return rule;
    }
    // Read with plain string work: std::regex trips GCC 12's maybe-uninitialized at -O1.
    std::string section;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("LABEL=\"") && line.ends_with("\"")) {
            section = line.substr(7, line.size() - 8);
            rule.labels.insert(section);
        }
        for (std::size_t at = line.find("GOTO=\""); at != std::string::npos;
             at = line.find("GOTO=\"", at + 1)) {
            std::size_t close = line.find('"', at + 6);
            if (close != std::string::npos) {
                rule.gotos.insert(line.substr(at + 6, close - at - 6));
            }
        }
        std::array<std::string, 4> match;  // the line, the key, the vendor, the products
        if (!readGrant(line, &match)) {
            if (line.find("uaccess\"") != std::string::npos && line.find("TAG") == 0) {
                rule.error = "a uaccess line of another form: " + line;
            }
            continue;
        }
        const bool onAncestor = match[1] == "ATTRS";
        // Each kind in its own section: the ports' after the tty jump, the nodes' after the USB
        // one.
        if (section != (onAncestor ? "qvdeviceobserver_ports" : "qvdeviceobserver_usb")) {
            rule.error = "a grant in section '" + section + "': " + line;
        }
        const std::uint32_t vendor = std::stoul(match[2], nullptr, 16);
        std::stringstream products(match[3]);
        for (std::string product; std::getline(products, product, '|');) {
            (onAncestor ? rule.ports : rule.nodes)
                .insert({vendor, std::stoul(product, nullptr, 16)});
        }
    }
    return rule;
}

TEST(UdevRule, GrantsTheSeatUserEveryWatchedUSBStickAndItsJumpsLand) {
    UaccessRule rule = readRule();
    ASSERT_TRUE(rule.error.empty()) << rule.error;

    std::set<Pair> watched;
    for (const DevPropertyMatch* row = devicesInfo; row->productID != kDevicesInfoEndMarker;
         ++row) {
        if (std::string(row->ioKitClass) == "IOUSBDevice" && row->vendorID != 0 &&
            row->productID != 0) {
            watched.insert({row->vendorID, row->productID});
        }
    }
    ASSERT_GT(watched.size(), 100u);
    for (const Pair& pair : watched) {
        char name[16];
        std::snprintf(name, sizeof name, "%04x:%04x", pair.first, pair.second);
        EXPECT_EQ(rule.ports.count(pair), 1u) << name << ": its serial ports are not granted";
        EXPECT_EQ(rule.nodes.count(pair), 1u) << name << ": its USB node is not granted";
    }
    // Nothing beyond what the framework watches.
    EXPECT_EQ(rule.ports, watched);
    EXPECT_EQ(rule.nodes, watched);

    EXPECT_EQ(rule.gotos, rule.labels);
    EXPECT_EQ(rule.labels, (std::set<std::string>{"qvdeviceobserver_end", "qvdeviceobserver_ports",
                                                  "qvdeviceobserver_usb"}));
    // systemd acts on the tag in 73-seat-late.rules: the file has to sort before it.
    const std::string fileName = kRule.substr(kRule.rfind('/') + 1);
    EXPECT_LT(fileName, std::string("73-seat-late.rules"));
}

}  // namespace
