// What the original platform told the framework about its surroundings, each injectable:
// the resources directory of the framework bundle, the system version (Gestalt), which
// applications are running (the workspace), and how the host application is terminated.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>

namespace qv {

// Bundle resources. The directory is, in this order: the one set by setResourcesDirectory(), the
// environment variable QVDEVICEOBSERVER_RESOURCES (development), the resources of the framework
// library that is running, found from the library's own location (dladdr): the install's data
// directory relative to the library, or the build tree's copy beside it; then the compiled-in
// install directory when it exists, then the build tree's copy.
class Bundle {
  public:
    static std::string resourcesDirectory();
    static void setResourcesDirectory(std::optional<std::string> directory);
    // pathForResource:ofType: — the full path when the file exists, otherwise nothing.
    static std::optional<std::string> pathForResource(const std::string& name,
                                                      const std::string& type);
    // Puts another file in the place of one resource (the simulator's own device database);
    // nullopt removes the replacement.
    static void setPathForResource(const std::string& name, const std::string& type,
                                   std::optional<std::string> path);
    // The file put in the place of that resource, if any.
    static std::optional<std::string> replacementForResource(const std::string& name,
                                                             const std::string& type);
    // A helper program the framework starts (the disk unmounter, CardPrepTool): the one in the
    // resources directory, else the installed one in the libexec directory; the path in the
    // resources directory when there is neither.
    static std::string pathForHelperTool(const std::string& name);
};

// Gestalt(gestaltSystemVersion): 0x1050 on Linux unless set otherwise.
class SystemVersion {
  public:
    static int current();
    // nullopt restores the Linux answer.
    static void set(std::optional<int> version);
    // The version set, nullopt when the Linux answer stands.
    static std::optional<int> installed();
};

using OSErr = std::int16_t;
using OSType = std::uint32_t;
inline constexpr OSType gestaltSystemVersion = 0x73797376;  // 'sysv'
inline constexpr OSErr noErr = 0;
inline constexpr OSErr gestaltUndefSelectorErr = -5551;
// The Core Services call as the framework makes it; only the system version selector is known.
OSErr Gestalt(OSType selector, std::int32_t* response);

// The workspace: which applications run. On Linux an application is recognised by its bundle
// identifier as a well-known name owned on the session bus (e.g. "com.example.Connect").
class Workspace {
  public:
    virtual ~Workspace() = default;
    virtual bool isApplicationRunning(const std::string& bundleIdentifier) = 0;

    static Workspace& shared();
    // nullptr restores the D-Bus workspace.
    static void setShared(std::shared_ptr<Workspace> workspace);
    // The one set now, or the D-Bus one once made; nullptr before either (to put back later).
    static std::shared_ptr<Workspace> installed();
};

// Asks the session bus (the address in DBUS_SESSION_BUS_ADDRESS, or $XDG_RUNTIME_DIR/bus)
// whether the name has an owner. Without a bus, or when the bus does not answer within the
// time-out, the application counts as not running: the host is never held up by D-Bus. The
// connection is kept for later questions and made again once it is lost. Real time, not the run
// loop's clock: this is I/O with another process, not framework timing.
class DBusWorkspace : public Workspace {
  public:
    explicit DBusWorkspace(double timeoutSeconds = 0.5);
    ~DBusWorkspace() override;
    DBusWorkspace(const DBusWorkspace&) = delete;
    DBusWorkspace& operator=(const DBusWorkspace&) = delete;

    bool isApplicationRunning(const std::string& bundleIdentifier) override;

  private:
    struct Connection;
    double timeoutSeconds_;
    std::mutex mutex_;
    std::unique_ptr<Connection> connection_;
};

class FixedWorkspace : public Workspace {
  public:
    explicit FixedWorkspace(std::set<std::string> running) : running_(std::move(running)) {}
    bool isApplicationRunning(const std::string& bundleIdentifier) override {
        return running_.count(bundleIdentifier) != 0;
    }

  private:
    std::set<std::string> running_;
};

// [NSApp terminate:]: calls the installed handler; without one the process exits normally
// (exit status 0, atexit handlers run).
class ApplicationTermination {
  public:
    static void terminate();
    // An empty function restores the default.
    static void setHandler(std::function<void()> handler);
    // The handler set, empty for the default.
    static std::function<void()> handler();
};

}  // namespace qv
