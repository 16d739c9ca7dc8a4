// The three listener functions the modem library calls with its answers for the device observer
// (the context). They turn result codes into observer calls: 7 is success, 11/12/18 are
// initialisation errors, 20 asks the application to quit, 12/19 are network-information failures.
#pragma once

#include <cstdint>

#include "Foundation/Value.h"

// Plain exported functions with C linkage, like the registry callbacks and the tables: a host or
// a modem library finds them by their plain names.
// `data` points to one slot holding a dictionary, for a success; it may be null.
extern "C" {
void groundInitListener(std::int32_t code, void* context, qv::Value* data);
void getDeviceInfoListener(std::int32_t code, void* context, qv::Value* data);
void gsmGetNetworkInfoListener(std::int32_t code, void* context, qv::Value* data,
                               std::int32_t complete);
}
