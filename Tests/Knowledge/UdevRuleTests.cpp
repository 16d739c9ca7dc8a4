// The shipped udev rule against the built-in table: the user at the seat gets the serial ports and
// the USB device node of every USB stick the framework watches, and the rule's jumps all land.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <map>
#include <regex>
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

UaccessRule readRule() {
    UaccessRule rule;
    std::ifstream file(kRule);
    if (!file) {
        rule.error = "cannot read " + kRule;
        return rule;
    }
    const std::regex grant(
        R"re(^(ATTRS?)\{idVendor\}=="([0-9a-f]{4})", \1\{idProduct\}=="([0-9a-f|]+)", TAG\+="uaccess"$)re");
    const std::regex label(R"re(^LABEL="([a-z_]+)"$)re");
    const std::regex jump(R"re(GOTO="([a-z_]+)")re");
    std::string section;
    for (std::string line; std::getline(file, line);) {
        std::smatch match;
        if (std::regex_match(line, match, label)) {
            section = match[1];
            rule.labels.insert(section);
        }
        for (auto it = std::sregex_iterator(line.begin(), line.end(), jump);
             it != std::sregex_iterator(); ++it) {
            rule.gotos.insert((*it)[1]);
        }
        if (!std::regex_match(line, match, grant)) {
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
