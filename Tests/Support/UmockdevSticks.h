// Fake sticks in a umockdev testbed, as the kernel and udev show them.
#pragma once

#include <glib.h>
#include <umockdev.h>

#include <string>

// A Huawei E1750 (12d1:1406) in modem mode at kernel name `name` (e.g. "1-2") with three
// serial interfaces, ttyUSB`firstTTY` upwards in interface order, and a USB serial number.
// Returns the stick's sysfs path.
inline std::string plugFakeE1750(UMockdevTestbed* testbed, const std::string& name, int firstTTY,
                                 const std::string& serial = "4C1D9B7E0F31") {
    gchar* stick = umockdev_testbed_add_device(
        testbed, "usb", name.c_str(), nullptr, "idVendor", "12d1", "idProduct", "1406", "product",
        "HUAWEI Mobile", "manufacturer", "HUAWEI Technology", "serial", serial.c_str(),
        "bNumInterfaces", " 3", nullptr, "DEVTYPE", "usb_device", "ID_SERIAL_SHORT", serial.c_str(),
        nullptr);
    for (int interface = 0; interface < 3; ++interface) {
        std::string interfaceName = name + ":1." + std::to_string(interface);
        std::string number = "0";
        number += std::to_string(interface);
        gchar* path = umockdev_testbed_add_device(
            testbed, "usb", interfaceName.c_str(), stick, "bInterfaceNumber", number.c_str(),
            "bInterfaceClass", "ff", nullptr, "DEVTYPE", "usb_interface", nullptr);
        std::string tty = "ttyUSB" + std::to_string(firstTTY + interface);
        g_free(umockdev_testbed_add_device(testbed, "tty", tty.c_str(), path, nullptr, nullptr));
        g_free(path);
    }
    std::string path = stick;
    g_free(stick);
    return path;
}
