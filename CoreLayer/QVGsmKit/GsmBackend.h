// qv::GsmBackend: the one seam behind the modem library's functions (CoreCommandBuilder's commands
// and the asynchronous requests of GsmAsyncRequests.h). The library's front end is the same for
// every backend; a backend only talks to modems:
//   - NullGsmBackend: reaches no modem (the default until another is installed);
//   - ScriptedGsmBackend: answers per port path from a description (tests, the simulator);
//   - SerialGsmBackend: the AT engine on serial ports, with its I/O on a thread of its own.
//
// Contract for every backend:
//   - Ports are full paths ("/dev/cu.ttyUSB0"); the front end turns port names into paths.
//   - identifyDevice() and modelInformation() are synchronous: they block the calling thread for as
//     long as the modem takes (the scripted backend sleeps on the caller's run loop, so in virtual
//     time that costs nothing) and answer an error of 0 on success. Called from any thread.
//   - startGroundInit(), getDeviceInfo() and startGetNetworkInfo() return at once: false when the
//     request could not be started (then `answer` is never called), true when it was. The backend
//     then calls `answer` later, from any thread (its I/O thread, or a timer on request.loop), once
//     for ground initialisation and device information, and for network information once per
//     answer, the last one with `complete` 1. It must never call `answer` from inside the start
//     call. The front end delivers each answer as a listener call on request.loop.
//   - Outside input (port paths, AT answers) never crashes a backend: it answers an error code.
//   - A backend may be replaced while requests are in flight: answers already promised still come.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Foundation/Value.h"
#include "RunLoop/RunLoop.h"

namespace qv {

// Command 3: which model the modem says it is.
struct GsmDeviceIdentification {
    std::int32_t error = 0;
    std::int32_t deviceId = 0;
};

// Command 9: the modem's model information; nil where the modem did not say.
struct GsmModelInformation {
    std::int32_t error = 0;
    Value pmn;                // product marketing name
    Value manSpecificNumber;  // the maker's specific number (GT code)
    Value model;              // the AT+CGMM model name
};

// One answer to an asynchronous request.
struct GsmAnswer {
    std::int32_t code = 0;
    Value data;                 // a dictionary, or nil when the answer carries none
    std::int32_t complete = 1;  // network information: 1 on the last answer of a request
};

using GsmAnswerHandler = std::function<void(GsmAnswer answer)>;

struct GsmRequest {
    std::int32_t deviceId = 0;
    std::string portPath;
    // The requesting thread's run loop: the answer is delivered there.
    std::shared_ptr<RunLoop> loop;
};

// A port name ("ttyUSB0") as a path ("/dev/cu.ttyUSB0"); a path (leading "/") stays as it is.
// Callers that take names or paths from outside check them first with gsmPortKeyProblem().
std::string gsmPortPath(const std::string& nameOrPath);

// Whether `name` can be a kernel port name: one file name under /dev (not empty, not "." or
// "..", no "/", printable ASCII without blanks, at most 255 bytes).
bool isGsmPortName(std::string_view name);

// The kernel name of a "/dev/cu.NAME" path, or nullopt when the path has another form or NAME
// is not a port name.
std::optional<std::string> gsmPortNameOfPath(std::string_view path);

// Why `nameOrPath` cannot name a port, or an empty string when it can: either a port name, or
// an absolute path without empty, "." or ".." components whose "/dev/cu." form, if it has that
// form, carries a port name. Such a key names the same port on every side: gsmPortPath() of it
// and gsmPortPath() of its kernel name are one path.
std::string gsmPortKeyProblem(std::string_view nameOrPath);

class GsmBackend {
  public:
    virtual ~GsmBackend() = default;

    virtual GsmDeviceIdentification identifyDevice(const std::string& portPath,
                                                   std::int32_t deviceId) = 0;
    virtual GsmModelInformation modelInformation(const std::string& portPath,
                                                 std::int32_t deviceId) = 0;

    // `script` is the AT initialisation script as the application wrote it.
    virtual bool startGroundInit(const GsmRequest& request, const std::string& script,
                                 GsmAnswerHandler answer) = 0;
    virtual bool getDeviceInfo(const GsmRequest& request, GsmAnswerHandler answer) = 0;
    virtual bool startGetNetworkInfo(const GsmRequest& request, GsmAnswerHandler answer) = 0;

    // The process's backend (safe from any thread).
    static std::shared_ptr<GsmBackend> current();
    // nullptr restores the null backend.
    static void setCurrent(std::shared_ptr<GsmBackend> backend);
    // Whether someone installed a backend (rather than the null one standing in by default).
    static bool isInstalled();
    // The backend someone installed, nullptr when none (to put back later).
    static std::shared_ptr<GsmBackend> installed();
};

}  // namespace qv
