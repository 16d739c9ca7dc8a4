// The framework's exported functions and tables are found by their plain names, as a host that
// looks them up in the running process finds them.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include "Application/QVModemStatusListeners.h"
#include "Events/QVDeviceNotificationCenter.h"
#include "QVDeviceKnowledge/QVDeviceTables.h"

TEST(ExportedFunctions, ListenersCallbacksAndTablesHavePlainNames) {
    const std::pair<const char*, const void*> exported[] = {
        {"groundInitListener", reinterpret_cast<const void*>(&groundInitListener)},
        {"getDeviceInfoListener", reinterpret_cast<const void*>(&getDeviceInfoListener)},
        {"gsmGetNetworkInfoListener", reinterpret_cast<const void*>(&gsmGetNetworkInfoListener)},
        {"ioDeviceAddedMatchingCallback",
         reinterpret_cast<const void*>(&ioDeviceAddedMatchingCallback)},
        {"ioDeviceRemovedMatchingCallback",
         reinterpret_cast<const void*>(&ioDeviceRemovedMatchingCallback)},
        {"devicesInfo", static_cast<const void*>(devicesInfo)},
        {"deviceClassInfo", static_cast<const void*>(deviceClassInfo)},
    };
    for (const auto& [name, address] : exported) {
        EXPECT_EQ(dlsym(RTLD_DEFAULT, name), address) << name;
    }
}
