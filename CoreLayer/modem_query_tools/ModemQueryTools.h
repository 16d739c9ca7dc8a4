// modem_query_tools: the GSM query library's texts for a model, by Quorvel ID.
// getDeviceName: the model's display name; getDeviceType: a short text for the kind of device.
// Both answer a C string that stays valid for the life of the process, and "" (never null) for a
// model they know nothing of. Safe from any thread.
#pragma once

#include <cstdint>

const char* getDeviceName(std::int32_t quorvelID);
const char* getDeviceType(std::int32_t quorvelID);
