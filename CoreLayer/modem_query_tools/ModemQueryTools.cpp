#include "ModemQueryTools.h"

#include <string_view>

#include "QVDeviceKnowledge/QVDeviceTableLookups.h"
#include "QVDeviceKnowledge/QVDeviceTables.h"

namespace {

bool mentions(const char* text, std::string_view word) {
    return text != nullptr && std::string_view(text).find(word) != std::string_view::npos;
}

}  // namespace

// The model's name as the built-in tables give it; the texts are constant data, so the pointer
// stays valid for the life of the process.
const char* getDeviceName(std::int32_t quorvelID) {
    if (quorvelID <= 0) {
        return "";
    }
    if (const DevPropertyMatch* row = QVDeviceTableLookups::tableEntryForQV_ID(quorvelID)) {
        return row->description ? row->description : "";
    }
    for (const GenericDeviceClassPropertyMatch* row = deviceClassInfo;
         row->quorvelID != kDeviceClassInfoEndMarker; ++row) {
        if (row->quorvelID == quorvelID) {
            return row->description ? row->description : "";
        }
    }
    return "";
}

// What kind of device the model is: by the bus it appears on and what its name says.
const char* getDeviceType(std::int32_t quorvelID) {
    if (quorvelID <= 0) {
        return "";
    }
    if (const DevPropertyMatch* row = QVDeviceTableLookups::tableEntryForQV_ID(quorvelID)) {
        const std::string_view ioClass = row->ioKitClass ? row->ioKitClass : "";
        if (ioClass == "IOPCIDevice")
            return "PCI data card";
        if (ioClass != "IOUSBDevice")
            return "PC Card";
        if (mentions(row->description, "phone") || mentions(row->description, "Phone")) {
            return "USB phone";
        }
        if (mentions(row->description, "module"))
            return "USB module";
        return "USB modem";
    }
    for (const GenericDeviceClassPropertyMatch* row = deviceClassInfo;
         row->quorvelID != kDeviceClassInfoEndMarker; ++row) {
        if (row->quorvelID == quorvelID) {
            return "USB modem (generic family)";
        }
    }
    return "";
}
