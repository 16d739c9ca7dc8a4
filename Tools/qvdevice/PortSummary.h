// What `qvdevice list` says of each serial port: the USB interface it hangs on, the mark udev
// rules gave it, and the role the device database gives it for the model the built-in table
// names (data, control, GPS), with a disagreement between mark and role flagged.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "Foundation/JsonValue.h"
#include "IOKit/Registry.h"
#include "Model/QVCapabilitySet.h"

class QVDeviceDatabase;

namespace qvdevice {

struct PortSummaryRow {
    std::string device;        // "12d1:1406"
    int quorvelID = 0;         // 0: the table names no single model
    std::string tty;           // "ttyUSB2"
    long long interface = -1;  // bInterfaceNumber, -1 when the registry does not say
    std::string mark;          // "QCDM", "GPS", "AT", "Ignore" or "" (none)
    std::string role;          // "data", "control", "data+control", "GPS", "other"; empty: none
    bool conflict = false;     // data or control on a port marked QCDM or GPS
};

// What a port is for, as its capabilities say: "data", "control", "GPS" joined by "+", or
// "other".
std::string portRoleText(const QVCapabilitySet& capabilities);

// The rows of every USB device in `root` (a registry tree the shared registry holds), classified
// with `database` when it is given.
std::vector<PortSummaryRow> summarizePorts(const qv::Registry::EntryView& root,
                                           const QVDeviceDatabase* database);

void printPortSummary(std::ostream& out, const std::vector<PortSummaryRow>& rows);
qv::Json portSummaryToJson(const std::vector<PortSummaryRow>& rows);

}  // namespace qvdevice
