#include "ModemQueryTools.h"

// Not wired to the device knowledge yet: every model reads as unknown.
const char* getDeviceName(std::int32_t) {
    return "";
}

const char* getDeviceType(std::int32_t) {
    return "";
}
