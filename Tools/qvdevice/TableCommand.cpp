// qvdevice table [--json]: prints the two built-in tables, devicesInfo and deviceClassInfo.
#include <cstdio>
#include <memory>
#include <string>

#include "CommandContext.h"
#include "Foundation/JsonValue.h"
#include "QVDeviceKnowledge/QVDeviceTables.h"

namespace qvdevice {

namespace {

std::string hex4(std::uint32_t value) {
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "0x%04X", value);
    return buffer;
}

qv::Json tablesToJson() {
    qv::Json devices = qv::Json::array();
    for (std::size_t i = 0; i < kDevicesInfoRowCount; ++i) {
        const DevPropertyMatch& row = devicesInfo[i];
        qv::Json item = qv::Json::object();
        item["quorvelID"] = row.quorvelID;
        item["vendorID"] = row.vendorID;
        item["productID"] = row.productID;
        item["powerUpDelay"] = row.powerUpDelay;
        item["description"] = row.description;
        item["ioKitClass"] = row.ioKitClass;
        devices.push_back(std::move(item));
    }
    qv::Json classes = qv::Json::array();
    for (std::size_t i = 0; i < kDeviceClassInfoRowCount; ++i) {
        const GenericDeviceClassPropertyMatch& row = deviceClassInfo[i];
        qv::Json item = qv::Json::object();
        item["quorvelID"] = row.quorvelID;
        item["vendorID"] = row.vendorID;
        item["description"] = row.description;
        classes.push_back(std::move(item));
    }
    qv::Json out = qv::Json::object();
    out["devicesInfo"] = std::move(devices);
    out["deviceClassInfo"] = std::move(classes);
    return out;
}

void printTables(std::ostream& out) {
    char line[256];
    out << "devicesInfo (" << kDevicesInfoRowCount << " rows)\n";
    std::snprintf(line, sizeof line, "%8s  %-6s  %-7s  %5s  %-16s  %s\n", "QVID", "vendor",
                  "product", "delay", "class", "description");
    out << line;
    for (std::size_t i = 0; i < kDevicesInfoRowCount; ++i) {
        const DevPropertyMatch& row = devicesInfo[i];
        std::snprintf(line, sizeof line, "%8d  %-6s  %-7s  %5u  %-16s  ", row.quorvelID,
                      hex4(row.vendorID).c_str(), hex4(row.productID).c_str(), row.powerUpDelay,
                      row.ioKitClass);
        out << line << row.description << "\n";
    }
    out << "\ndeviceClassInfo (" << kDeviceClassInfoRowCount << " rows)\n";
    std::snprintf(line, sizeof line, "%8s  %-6s  %s\n", "QVID", "vendor", "description");
    out << line;
    for (std::size_t i = 0; i < kDeviceClassInfoRowCount; ++i) {
        const GenericDeviceClassPropertyMatch& row = deviceClassInfo[i];
        std::snprintf(line, sizeof line, "%8d  %-6s  ", row.quorvelID, hex4(row.vendorID).c_str());
        out << line << row.description << "\n";
    }
}

void addTableCommand(CLI::App& app, CommandContext& context) {
    auto json = std::make_shared<bool>(false);
    CLI::App* command = app.add_subcommand("table", "Print the built-in device tables");
    command->add_flag("--json", *json, "print the tables as JSON");
    command->callback([json, &context]() {
        if (*json) {
            context.out << tablesToJson().dump(2) << "\n";
        } else {
            printTables(context.out);
        }
        context.exitCode = 0;
    });
}

const bool registered = registerCommand("table", addTableCommand);

}  // namespace

}  // namespace qvdevice
