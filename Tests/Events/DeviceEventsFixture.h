// A fresh process registry on a virtual run loop, with the "DeviceRecognition" log captured; the
// shared notification center is emptied after each test so no port outlives its registry.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "Events/QVDeviceNotificationCenter.h"
#include "Foundation/Logging.h"
#include "IOKit/IOKitLib.h"
#include "IOKit/Registry.h"
#include "RunLoop/VirtualRunLoop.h"
#include "Support/VirtualRegistryTest.h"

class DeviceEventsTest : public VirtualRegistryTest {
  protected:
    qv::Registry& registry() { return qv::Registry::shared(); }

    io_registry_entry_t addUsb(int vendor, int product, qv::Value location,
                               io_registry_entry_t parent = IO_OBJECT_NULL) {
        qv::Value properties(qv::Dictionary{{"idVendor", vendor},
                                            {"idProduct", product},
                                            {"USB Product Name", "Stick"},
                                            {"USB Vendor Name", "Maker"}});
        if (!location.isNil()) {
            properties.set("locationID", std::move(location));
        }
        return registry().addEntry(parent, "IOUSBDevice", "", std::move(properties));
    }
    io_registry_entry_t add(io_registry_entry_t parent, const std::string& className,
                            qv::Value properties = {}, const std::string& name = "") {
        return registry().addEntry(parent, className, name, std::move(properties));
    }
    io_registry_entry_t addSerial(io_registry_entry_t parent, const std::string& tty) {
        return add(
            parent, "IOSerialBSDClient",
            qv::Value(qv::Dictionary{{"IOTTYDevice", tty}, {"IOCalloutDevice", "/dev/cu." + tty}}));
    }
    io_registry_entry_t addBsd(io_registry_entry_t parent, const std::string& className,
                               const std::string& bsdName) {
        return add(parent, className, qv::Value(qv::Dictionary{{"BSD Name", bsdName}}));
    }
};
