#include "PortSummary.h"

#include <cstdio>
#include <memory>

#include "Events/QVIODevice.h"
#include "Foundation/Exception.h"
#include "IOKit/UdevMapping.h"
#include "Knowledge/QVDeviceDatabase.h"
#include "Model/QVSerialInterface.h"
#include "Model/QVUSBDevice.h"
#include "QVDeviceKnowledge/QVDeviceTableLookups.h"

namespace qvdevice {

namespace {

std::string vendorProduct(const qv::Value& properties) {
    char text[16];
    std::snprintf(text, sizeof text, "%04x:%04x",
                  static_cast<unsigned>(properties["idVendor"].intValue()) & 0xFFFFu,
                  static_cast<unsigned>(properties["idProduct"].intValue()) & 0xFFFFu);
    return text;
}

// The record classified with the model's entry, or null when the table names no single model,
// the database has no entry, or classification raises (a malformed entry).
std::shared_ptr<QVUSBDevice> classified(const qv::Registry::EntryView& device, int quorvelID,
                                        const QVDeviceDatabase* database) {
    if (database == nullptr || quorvelID <= 0 ||
        !database->hasEntryForQuorvelID(static_cast<std::uint32_t>(quorvelID))) {
        return nullptr;
    }
    auto ioDevice = QVIODevice::deviceWithServiceEntry(device.handle);
    auto record = QVUSBDevice::device();
    try {
        record->setDatabaseEntry(
            database->entryForQuorvelID(static_cast<std::uint32_t>(quorvelID)));
        record->initializeFromIODevice(*ioDevice);
        // Whether or not every required port was found, the ports that were keep their roles.
        record->couldClassifyPortsFromIODevice(*ioDevice, true);
    } catch (const qv::Exception&) {
        return nullptr;
    }
    return record;
}

void addRows(const qv::Registry::EntryView& device, const QVDeviceDatabase* database,
             std::vector<PortSummaryRow>& rows) {
    const std::string name = vendorProduct(device.properties);
    const int quorvelID = QVDeviceTableLookups::quorvelIDFromUSBVid(
        static_cast<std::uint32_t>(device.properties["idVendor"].intValue()),
        static_cast<std::uint32_t>(device.properties["idProduct"].intValue()));
    std::shared_ptr<QVUSBDevice> record;
    bool classifiedOnce = false;
    for (const auto& interface : device.children) {
        const qv::Value& number = interface.properties["bInterfaceNumber"];
        for (const auto& client : interface.children) {
            if (client.className != "IOSerialBSDClient") {
                continue;
            }
            if (!classifiedOnce) {
                record = classified(device, quorvelID, database);
                classifiedOnce = true;
            }
            PortSummaryRow row;
            row.device = name;
            row.quorvelID = quorvelID;
            row.tty = client.properties["IOTTYDevice"].stringValue();
            row.interface = number.isNumber() ? number.integerValue() : -1;
            row.mark = client.properties[qv::kPortFunctionKey].stringValue();
            if (record) {
                const std::string path = client.properties["IOCalloutDevice"].stringValue();
                if (auto port = record->interfaceWithPortPath(path)) {
                    row.role = portRoleText(port->capabilities());
                }
            }
            row.conflict = (row.mark == "QCDM" || row.mark == "GPS") &&
                           (row.role.find("data") != std::string::npos ||
                            row.role.find("control") != std::string::npos);
            rows.push_back(std::move(row));
        }
    }
}

}  // namespace

std::string portRoleText(const QVCapabilitySet& capabilities) {
    std::string roles;
    auto add = [&roles](const char* role) {
        roles += roles.empty() ? "" : "+";
        roles += role;
    };
    if (capabilities.count(kQVCapabilityDataTransport)) {
        add("data");
    }
    if (capabilities.count("NetworkQuery")) {
        add("control");
    }
    if (capabilities.count("GPSData")) {
        add("GPS");
    }
    return roles.empty() ? "other" : roles;
}

std::vector<PortSummaryRow> summarizePorts(const qv::Registry::EntryView& root,
                                           const QVDeviceDatabase* database) {
    std::vector<PortSummaryRow> rows;
    for (const auto& device : root.children) {
        if (device.className == "IOUSBDevice") {
            addRows(device, database, rows);
        }
    }
    return rows;
}

void printPortSummary(std::ostream& out, const std::vector<PortSummaryRow>& rows) {
    out << "\nSerial ports (USB interface, udev mark, role the device database gives):\n";
    if (rows.empty()) {
        out << "  none\n";
        return;
    }
    for (const PortSummaryRow& row : rows) {
        out << "  " << row.device << "  " << row.tty << "  interface "
            << (row.interface < 0 ? std::string("?") : std::to_string(row.interface)) << "  mark "
            << (row.mark.empty() ? "-" : qv::quotedDescription(row.mark)) << "  role "
            << (row.role.empty() ? std::string("-") : row.role);
        if (row.quorvelID <= 0) {
            out << " (the table names no single model)";
        } else {
            out << " (Quorvel ID " << row.quorvelID << ")";
        }
        if (row.conflict) {
            out << "  CONFLICT: the udev rules mark this port " << row.mark;
        }
        out << "\n";
    }
}

qv::Json portSummaryToJson(const std::vector<PortSummaryRow>& rows) {
    qv::Json list = qv::Json::array();
    for (const PortSummaryRow& row : rows) {
        qv::Json item = qv::Json::object();
        item["device"] = row.device;
        item["quorvelID"] = row.quorvelID;
        item["tty"] = row.tty;
        item["interface"] = row.interface < 0 ? qv::Json() : qv::Json(row.interface);
        item["mark"] = row.mark.empty() ? qv::Json() : qv::Json(row.mark);
        item["role"] = row.role.empty() ? std::string("-") : row.role;
        item["conflict"] = row.conflict;
        list.push_back(std::move(item));
    }
    return list;
}

}  // namespace qvdevice
