// What the original platform told the framework about its surroundings, each injectable:
// the resources directory of the framework bundle, the system version (Gestalt), which
// applications are running (the workspace), and how the host application is terminated.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>

namespace qv {

// Bundle resources. The directory is, in this order: the one set by setResourcesDirectory(), the
// environment variable QVDEVICEOBSERVER_RESOURCES, the installed one when it exists, the build
// tree's copy.
class Bundle {
  public:
    static std::string resourcesDirectory();
    static void setResourcesDirectory(std::optional<std::string> directory);
    // pathForResource:ofType: — the full path when the file exists, otherwise nothing.
    static std::optional<std::string> pathForResource(const std::string& name,
                                                      const std::string& type);
    // A helper program shipped in the resources (the disk unmounter, CardPrepTool).
    static std::string pathForHelperTool(const std::string& name);
};

// Gestalt(gestaltSystemVersion): 0x1050 on Linux unless set otherwise.
class SystemVersion {
  public:
    static int current();
    static void set(std::optional<int> version);
};

// The workspace: which applications run. On Linux an application is recognised by its bundle
// identifier as a well-known name owned on the session bus (e.g. "com.example.Connect").
class Workspace {
  public:
    virtual ~Workspace() = default;
    virtual bool isApplicationRunning(const std::string& bundleIdentifier) = 0;

    static Workspace& shared();
    // nullptr restores the D-Bus workspace.
    static void setShared(std::shared_ptr<Workspace> workspace);
};

class DBusWorkspace : public Workspace {
  public:
    bool isApplicationRunning(const std::string& bundleIdentifier) override;
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

// [NSApp terminate:]: calls the installed handler; without one the process exits normally.
class ApplicationTermination {
  public:
    static void terminate();
    static void setHandler(std::function<void()> handler);
};

}  // namespace qv
