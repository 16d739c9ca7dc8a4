// The models list the device database is generated from (scripts/device-models.tsv), read for
// tests: each model's USB interfaces, the ttys Linux gives them (none on an interface the driver
// reserves or a network driver takes; one per CDC-ACM function, on its first interface; several
// on one hso interface) and the role each tty carries.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace testmodels {

struct ModelTTY {
    int interfaceNumber;
    std::string name;  // kernel name: "ttyUSB2", "ttyACM0", "ttyHS1"; "ttyS4" for serial cards
    std::string role;  // "modem", "control", "pcui", "diag", "gps", "aux", "app"
    bool optional;
};

struct ModelInterface {
    int number;
    bool hasTTY;
};

struct DeviceModel {
    int id = 0;
    std::uint32_t vendor = 0;
    std::uint32_t product = 0;
    std::string driver;
    std::vector<ModelInterface> interfaces;  // in interface order
    std::vector<ModelTTY> ttys;              // in the order the framework numbers them
    std::string network;                     // "qmi_wwan:wwan0" or "-"
    std::string driverDisk;
    std::string layout;  // "sourced", "family", "driver", "mm-udev"
    std::string source;
};

inline const char* ttyPrefix(const std::string& driver) {
    if (driver == "cdc_acm") {
        return "ttyACM";
    }
    if (driver == "hso") {
        return "ttyHS";
    }
    if (driver == "serial") {
        return "ttyS";
    }
    if (driver == "nozomi") {
        return "noz";
    }
    return "ttyUSB";
}

inline std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::stringstream in(text);
    for (std::string part; std::getline(in, part, separator);) {
        parts.push_back(part);
    }
    return parts;
}

inline DeviceModel parseModel(const std::vector<std::string>& f) {
    DeviceModel model;
    model.id = std::stoi(f[0]);
    model.vendor = static_cast<std::uint32_t>(std::stoul(f[1], nullptr, 16));
    model.product = static_cast<std::uint32_t>(std::stoul(f[2], nullptr, 16));
    model.driver = f[7];
    model.network = f[10];
    model.driverDisk = f[11];
    model.layout = f[13];
    model.source = f[14];
    std::set<int> reserved;
    if (f[9] != "-") {
        for (const std::string& number : split(f[9], ',')) {
            reserved.insert(std::stoi(number));
        }
    }
    if (f[8] == "-") {
        return model;
    }
    int rank = 0;
    std::stringstream tokens(f[8]);
    for (std::string token; tokens >> token;) {
        const std::size_t equals = token.find('=');
        const int number = std::stoi(token.substr(0, token.find_first_of("+=")));
        bool hasTTY = false;
        for (std::string role : split(token.substr(equals + 1), ',')) {
            const bool optional = !role.empty() && role.back() == '?';
            if (optional) {
                role.pop_back();
            }
            if (reserved.count(number) || role == "net" || role == "none" || role == "storage") {
                continue;
            }
            hasTTY = true;
            model.ttys.push_back(
                {number, ttyPrefix(model.driver) + std::to_string(rank++), role, optional});
        }
        model.interfaces.push_back({number, hasTTY});
    }
    return model;
}

inline std::vector<DeviceModel> readDeviceModels() {
    std::ifstream in(std::string(QV_SOURCE_DIR) + "/scripts/device-models.tsv");
    std::vector<DeviceModel> models;
    std::string line;
    std::getline(in, line);
    while (std::getline(in, line)) {
        std::vector<std::string> fields = split(line, '\t');
        EXPECT_EQ(fields.size(), 15u) << line;
        if (fields.size() == 15) {
            models.push_back(parseModel(fields));
        }
    }
    return models;
}

}  // namespace testmodels
