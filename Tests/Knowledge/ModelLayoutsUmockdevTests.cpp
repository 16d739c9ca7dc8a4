// Every USB model of the models list as a fake stick in a fake sysfs (reserved interfaces without
// a tty, CDC-ACM functions with their tty on the first interface, several ttys on one interface),
// read through the udev feeder and classified with the shipped database: the data port must be
// the tty on the modem interface and control commands must go to the control interface's tty.
// Needs umockdev's preload library: ctest runs it under umockdev-wrapper; elsewhere it skips.
#ifdef QV_HAVE_UMOCKDEV

#include <gtest/gtest.h>
#include <umockdev.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Events/QVIODevice.h"
#include "Foundation/JsonValue.h"
#include "Foundation/Platform.h"
#include "IOKit/Registry.h"
#include "IOKit/UdevFeeder.h"
#include "Knowledge/QVDeviceDatabase.h"
#include "Model/QVSerialInterface.h"
#include "Model/QVUSBDevice.h"
#include "Support/DeviceModelsList.h"
#include "Support/ToolRunner.h"
#include "Support/UmockdevTest.h"

namespace {

std::string hex4(std::uint32_t value) {
    char text[8];
    std::snprintf(text, sizeof text, "%04x", value & 0xFFFF);
    return text;
}

std::string twoDigits(int number) {
    std::string text = number < 10 ? "0" : "";
    text += std::to_string(number);
    return text;
}

class ModelLayoutsUmockdev : public UmockdevTest {
  protected:
    // The model's stick on bus `bus`: its interfaces in number order, each tty below its
    // interface, the network function below an interface of its own.
    std::string addStick(const testmodels::DeviceModel& model, int bus) {
        const std::string name = std::to_string(bus) + "-1";
        gchar* stick = umockdev_testbed_add_device(
            testbed_, "usb", name.c_str(), nullptr, "idVendor", hex4(model.vendor).c_str(),
            "idProduct", hex4(model.product).c_str(), nullptr, "DEVTYPE", "usb_device", nullptr);
        std::map<int, gchar*> interfaces;
        int highest = -1;
        for (const testmodels::ModelInterface& interface : model.interfaces) {
            highest = std::max(highest, interface.number);
        }
        for (int number = 0; number <= highest + 1; ++number) {
            const std::string interfaceName = name + ":1." + std::to_string(number);
            interfaces[number] = umockdev_testbed_add_device(
                testbed_, "usb", interfaceName.c_str(), stick, "bInterfaceNumber",
                twoDigits(number).c_str(), nullptr, "DEVTYPE", "usb_interface", nullptr);
        }
        for (const testmodels::ModelTTY& tty : model.ttys) {
            g_free(umockdev_testbed_add_device(testbed_, "tty", tty.name.c_str(),
                                               interfaces[tty.interfaceNumber], nullptr, nullptr));
        }
        if (model.network != "-") {
            const std::string netName = model.network.substr(model.network.find(':') + 1);
            g_free(umockdev_testbed_add_device(testbed_, "net", netName.c_str(),
                                               interfaces[highest + 1], nullptr, nullptr));
        }
        for (auto& [number, path] : interfaces) {
            g_free(path);
        }
        std::string path = stick;
        g_free(stick);
        return path;
    }
};

// The path of the record's serial port that carries `capability`, or "" when none does.
std::string portWith(const QVUSBDevice& device, const char* capability) {
    for (const auto& interface : device.interfaces()) {
        auto port = std::dynamic_pointer_cast<QVSerialInterface>(interface);
        if (port && port->hasCapability(capability)) {
            return port->path().value_or("");
        }
    }
    return "";
}

TEST_F(ModelLayoutsUmockdev, DataAndControlLandOnTheModelsTTYs) {
    if (!testbedReady()) {
        return;
    }
    auto database = QVDeviceDatabase::databaseFromFile(
        std::string(QV_SOURCE_DIR) + "/CoreLayer/QVDeviceObserver/Resources/DeviceDatabase.plist");
    const std::vector<testmodels::DeviceModel> models = testmodels::readDeviceModels();
    ASSERT_EQ(models.size(), 151u);
    int built = 0;
    int bus = 1;
    for (const testmodels::DeviceModel& model : models) {
        // Serial cards and nozomi are not USB sticks; models without ttys have nothing to place.
        if (model.ttys.empty() || model.driver == "serial" || model.driver == "nozomi") {
            continue;
        }
        SCOPED_TRACE(model.id);
        qv::Registry::resetShared();
        const std::string stickPath = addStick(model, bus);
        qv::UdevFeeder feeder(qv::Registry::shared());
        ASSERT_EQ(feeder.start(false), qv::UdevFeeder::StartResult::Started);
        io_registry_entry_t entry = feeder.handleFor(stickPath);
        ASSERT_NE(entry, IO_OBJECT_NULL);
        auto ioDevice = QVIODevice::deviceWithServiceEntry(entry);

        auto record = QVUSBDevice::device();
        record->setDatabaseEntry(database->entryForQuorvelID(static_cast<std::uint32_t>(model.id)));
        record->initializeFromIODevice(*ioDevice);
        ASSERT_TRUE(record->couldClassifyPortsFromIODevice(*ioDevice, true));

        std::string modem;
        std::string control;
        for (const testmodels::ModelTTY& tty : model.ttys) {
            if (tty.role == "modem" && modem.empty()) {
                modem = "/dev/cu." + tty.name;
            }
            if ((tty.role == "control" || tty.role == "pcui") && control.empty()) {
                control = "/dev/cu." + tty.name;
            }
        }
        EXPECT_EQ(portWith(*record, "DataTransport"), modem);
        EXPECT_EQ(portWith(*record, "NetworkQuery"), control.empty() ? modem : control);
        // Nothing goes to a diagnostics or GPS tty but GPS data.
        for (const testmodels::ModelTTY& tty : model.ttys) {
            if (tty.role == "diag" || tty.role == "gps") {
                auto port = record->interfaceWithPortPath("/dev/cu." + tty.name);
                EXPECT_TRUE(port == nullptr || !port->hasCapability("NetworkQuery")) << tty.name;
            }
        }
        // A fresh testbed for the next stick: kernel names repeat from model to model.
        g_object_unref(testbed_);
        testbed_ = umockdev_testbed_new();
        ++built;
        ++bus;
    }
    qv::Registry::resetShared();
    EXPECT_GT(built, 120);
}

// `qvdevice list` on a ZTE MF632 (interface 1 reserved: no tty) whose udev rules mark the
// diagnostics port QCDM, the control port AT, and, wrongly, the modem's port GPS.
TEST_F(ModelLayoutsUmockdev, ListShowsInterfaceMarkAndRoleOfEachTTY) {
    if (!testbedReady()) {
        return;
    }
    gchar* stick =
        umockdev_testbed_add_device(testbed_, "usb", "3-2", nullptr, "idVendor", "19d2",
                                    "idProduct", "0002", nullptr, "DEVTYPE", "usb_device", nullptr);
    struct Port {
        int interface;
        const char* tty;
        const char* mark;
    };
    const Port ports[] = {{0, "ttyUSB0", "ID_MM_PORT_TYPE_QCDM"},
                          {1, nullptr, nullptr},
                          {2, "ttyUSB1", "ID_MM_PORT_TYPE_GPS"},
                          {3, "ttyUSB2", nullptr},
                          {4, "ttyUSB3", "ID_MM_PORT_TYPE_AT_SECONDARY"}};
    for (const Port& port : ports) {
        const std::string name = "3-2:1." + std::to_string(port.interface);
        gchar* interface = umockdev_testbed_add_device(
            testbed_, "usb", name.c_str(), stick, "bInterfaceNumber",
            twoDigits(port.interface).c_str(), nullptr, "DEVTYPE", "usb_interface", nullptr);
        if (port.tty != nullptr) {
            g_free(umockdev_testbed_add_device(testbed_, "tty", port.tty, interface, nullptr,
                                               port.mark, port.mark ? "1" : nullptr, nullptr));
        }
        g_free(interface);
    }
    g_free(stick);

    qv::Bundle::setResourcesDirectory(QV_BUILD_RESOURCES_DIR);
    ToolRun text = runQvdevice({"list"});
    ToolRun json = runQvdevice({"list", "--json"});
    qv::Bundle::setResourcesDirectory(std::nullopt);
    qv::Registry::resetShared();
    ASSERT_EQ(text.code, 0) << text.err;
    EXPECT_NE(text.out.find("  19d2:0002  ttyUSB0  interface 0  mark QCDM  role - (Quorvel ID "
                            "15400)\n"),
              std::string::npos)
        << text.out;
    EXPECT_NE(text.out.find("  19d2:0002  ttyUSB1  interface 2  mark GPS  role data (Quorvel "
                            "ID 15400)  CONFLICT: the udev rules mark this port GPS\n"),
              std::string::npos)
        << text.out;
    EXPECT_NE(text.out.find("  19d2:0002  ttyUSB2  interface 3  mark -  role - (Quorvel ID "
                            "15400)\n"),
              std::string::npos);
    EXPECT_NE(text.out.find("  19d2:0002  ttyUSB3  interface 4  mark AT  role control "
                            "(Quorvel ID 15400)\n"),
              std::string::npos);
    ASSERT_EQ(json.code, 0) << json.err;
    qv::Json listed = qv::Json::parse(json.out)["serialPorts"];
    ASSERT_EQ(listed.size(), 4u);
    EXPECT_EQ(listed[1]["interface"], 2);
    EXPECT_EQ(listed[1]["mark"], "GPS");
    EXPECT_EQ(listed[1]["role"], "data");
    EXPECT_EQ(listed[1]["conflict"], true);
    EXPECT_EQ(listed[3]["conflict"], false);
}

}  // namespace

#endif  // QV_HAVE_UMOCKDEV
