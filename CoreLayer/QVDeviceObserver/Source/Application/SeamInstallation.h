// qv::SeamInstallation: puts other pieces in the place of the framework's process-wide seams for as
// long as it lives (a test's, the simulator's, a tool's), and puts back what was there before when
// it goes. A seam the caller leaves unset in `Seams` is not touched, neither now nor later.
//
// Seams go in in this order and come back out in the reverse one:
//   1. the calling thread's run loop, so that it outlives everything below it;
//   2. a fresh framework, when asked: the notification center's subscriptions are ended and the
//      shared observer, monitor and priority queue dropped before the registry is replaced, since
//      they hold its snapshots and ports. Going out, the same happens again: what the run left
//      behind is thrown away rather than put back;
//   3. device platform, modem library, task launcher, USB device access, mount table, workspace,
//      system version, resource replacements, application termination;
//   4. the log sinks, last in and first out, so that a sink never outlives what it writes into
//      when the caller declares that after the installation.
// Installations nest: an inner one puts back what the outer one had installed. Should installing
// one seam raise, those already installed are put back before the exception passes on.
//
// Made and destroyed on the same thread: the run loop belongs to that thread. Not meant for two
// threads installing at once.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "DevicePlatform.h"
#include "Foundation/Logging.h"

namespace qv {

class GsmBackend;
class MountedFileSystems;
class RunLoop;
class TaskLauncher;
class USBDeviceAccess;
class Workspace;

// What one installation replaces. For the pointers, an installed nullptr means the real default
// (the live platform; no modem library installed, so the null one answers; ...).
struct Seams {
    struct Resource {
        std::string name;
        std::string type;
        std::string path;
    };

    std::optional<std::shared_ptr<RunLoop>> runLoop;
    bool freshFramework = false;
    std::optional<std::shared_ptr<DevicePlatform>> platform;
    std::optional<std::shared_ptr<GsmBackend>> gsmBackend;
    std::optional<std::shared_ptr<TaskLauncher>> taskLauncher;
    std::optional<std::shared_ptr<USBDeviceAccess>> usbDeviceAccess;
    std::optional<std::shared_ptr<MountedFileSystems>> mountTable;
    std::optional<std::shared_ptr<Workspace>> workspace;
    std::optional<int> systemVersion;
    std::vector<Resource> resources;  // files in the place of the bundle's own
    std::optional<std::function<void()>> applicationTermination;
    std::optional<NamedLogSink> namedLog;
    std::optional<LineSink> systemLog;
    std::optional<LineSink> standardOutput;
};

class SeamInstallation {
  public:
    explicit SeamInstallation(const Seams& seams);
    ~SeamInstallation();
    SeamInstallation(const SeamInstallation&) = delete;
    SeamInstallation& operator=(const SeamInstallation&) = delete;

    // Ends every subscription and drops the framework's shared objects, then the registry, in the
    // order that leaves no snapshot or port pointing into a registry that is gone.
    static void startFreshFramework();

  private:
    void install(const Seams& seams);
    // Sets one seam and remembers how to put back what it replaces.
    template <class Value, class Get, class Set>
    void replace(const std::optional<Value>& value, Get get, Set set);
    void pushUndo(std::function<void()> undo);
    void restore() noexcept;

    std::vector<std::function<void()>> undo_;
};

}  // namespace qv
