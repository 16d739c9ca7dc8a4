// A fresh registry with scripted USB sticks (serial ports and a network interface below each),
// the "DeviceRecognition" log captured, and database entries made from plain dictionaries.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "Events/QVIODevice.h"
#include "Foundation/Logging.h"
#include "IOKit/Registry.h"
#include "Knowledge/QVDeviceDatabaseEntry.h"
#include "Model/QVUSBDevice.h"
#include "RunLoop/VirtualRunLoop.h"
#include "Support/VirtualRegistryTest.h"

class QVUSBDeviceTest : public VirtualRegistryTest {
  protected:
    // A stick with one serial client per tty name (in interface order) and, when given, a
    // network interface.
    std::shared_ptr<QVIODevice> stick(const std::vector<std::string>& ttys,
                                      const std::string& ethernet = "") {
        auto& registry = qv::Registry::shared();
        io_registry_entry_t device =
            registry.addEntry(IO_OBJECT_NULL, "IOUSBDevice", "",
                              qv::Value(qv::Dictionary{{"idVendor", 4817},
                                                       {"idProduct", 4099},
                                                       {"USB Product Name", "E220 HSDPA Modem"},
                                                       {"USB Vendor Name", "HUAWEI Technologies"},
                                                       {"locationID", 0x14200000}}));
        for (const auto& tty : ttys) {
            io_registry_entry_t interface =
                registry.addEntry(device, "IOUSBInterface", "", qv::Value());
            registry.addEntry(interface, "IOSerialBSDClient", "",
                              qv::Value(qv::Dictionary{{"IOTTYDevice", tty},
                                                       {"IOCalloutDevice", "/dev/cu." + tty}}));
        }
        if (!ethernet.empty()) {
            registry.addEntry(device, "IOEthernetInterface", "",
                              qv::Value(qv::Dictionary{{"BSD Name", ethernet}}));
        }
        return QVIODevice::deviceWithServiceEntry(device);
    }

    // A USB record whose database entry holds `keys` (its ID is added).
    static std::shared_ptr<QVUSBDevice> recordWithEntry(qv::Dictionary keys) {
        keys.set("DeviceDatabase.QuorvelID", 4817);
        auto device = QVUSBDevice::device();
        device->setDatabaseEntry(QVDeviceDatabaseEntry::entryFromDictionary(qv::Value(keys)));
        return device;
    }

    // The paths of the record's interfaces (names for network interfaces), in list order.
    static std::vector<std::string> paths(const QVDevice& device) {
        std::vector<std::string> out;
        for (const auto& interface : device.interfaces()) {
            auto port = std::dynamic_pointer_cast<QVSerialInterface>(interface);
            out.push_back(port ? port->path().value_or("?") : interface->name());
        }
        return out;
    }
};
