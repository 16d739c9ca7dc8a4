// The GSM library's asynchronous requests. Each takes a plain listener function and an opaque
// context, returns at once, and later calls the listener on the run loop of the thread that made
// the request (RunLoop::current() at the time of the call), with:
//   1. the result code (GsmResultCodes.h; kGsmResultSuccess is success),
//   2. the context, as given,
//   3. the result data: a pointer to a slot holding the answer's dictionary, or nullptr when the
//      answer has none. The slot is the library's and lives for the call; the listener may take
//      the value out of it (std::move), nothing reads it afterwards;
//   4. network information only: the completion flag, 1 on the last answer to a request.
// A listener is called once per request (network information: once per answer, the last with
// flag 1), never from inside the request function. A request that could not be started returns 0
// and its listener is never called; otherwise the functions return 1.
//
// The port is named as the device record names it: the path without "/dev/cu." ("ttyUSB2"); a
// full path is accepted too.
#pragma once

#include <cstdint>

#include "Foundation/Value.h"

using GsmListener = void (*)(std::int32_t resultCode, void* context, qv::Value* data);
using GsmNetworkInfoListener = void (*)(std::int32_t resultCode, void* context, qv::Value* data,
                                        std::int32_t completionFlag);

// Ground initialisation: opens the port and runs the AT initialisation script, one command per
// line ("[L2N]" marks the start of a line). Answers a code, no data.
std::int32_t startGroundInitEx(std::int32_t deviceId, const char* portName, const char* initScript,
                               GsmListener listener, void* context);
// Device information: answers a dictionary with kGsmResultSuccess.
std::int32_t getTheDeviceInfo(std::int32_t deviceId, const char* portName, GsmListener listener,
                              void* context);
// Network information: answers a dictionary with kGsmResultSuccess and the completion flag.
std::int32_t startGetNetworkInfoEx(std::int32_t deviceId, const char* portName,
                                   GsmNetworkInfoListener listener, void* context);
