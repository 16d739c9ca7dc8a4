#include "Platform.h"

#include <dlfcn.h>
#include <gio/gio.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <system_error>
#include <utility>

// Builds that compile this file on its own (the fuzzers) assume the usual layout.
#ifndef QV_RESOURCES_FROM_LIBRARY_DIR
#define QV_RESOURCES_FROM_LIBRARY_DIR "../share/QVDeviceObserver/Resources"
#endif

namespace qv {

namespace {

std::mutex gPlatformMutex;
std::optional<std::string> gResourcesOverride;
std::shared_ptr<Workspace> gWorkspace;
std::function<void()> gTerminationHandler;

constexpr int kLinuxSystemVersion = 0x1050;
constexpr int kNoVersionOverride = -1;
std::atomic<int> gSystemVersion{kNoVersionOverride};

bool isDirectory(const std::string& path) {
    std::error_code ec;
    return std::filesystem::is_directory(path, ec);
}

bool isRegularFile(const std::string& path) {
    std::error_code ec;
    return std::filesystem::is_regular_file(path, ec);
}

// A resource or tool name is one file name inside the resources directory, never a path.
bool isPlainFileName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
           name.find('\0') == std::string::npos;
}

// The directory of the shared object that holds this code (the framework library), or empty.
std::string libraryDirectory() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&libraryDirectory), &info) == 0 ||
        info.dli_fname == nullptr) {
        return {};
    }
    std::error_code ec;
    std::filesystem::path library = std::filesystem::canonical(info.dli_fname, ec);
    return ec ? std::string() : library.parent_path().string();
}

// The resources of the framework that is running: where the install put them relative to the
// library (a relocated prefix included), or the copy beside the library in a build tree. Empty
// when neither exists, so that the compiled-in places are tried.
std::string resourcesBesideLibrary() {
    std::string directory = libraryDirectory();
    if (directory.empty()) {
        return {};
    }
    for (const char* relative : {QV_RESOURCES_FROM_LIBRARY_DIR, "Resources"}) {
        std::error_code ec;
        std::filesystem::path candidate =
            std::filesystem::weakly_canonical(std::filesystem::path(directory) / relative, ec);
        if (!ec && isRegularFile((candidate / "DeviceDatabase.plist").string())) {
            return candidate.string();
        }
    }
    return {};
}

}  // namespace

// ---- Bundle ----

std::string Bundle::resourcesDirectory() {
    {
        std::lock_guard<std::mutex> lock(gPlatformMutex);
        if (gResourcesOverride) {
            return *gResourcesOverride;
        }
    }
    const char* fromEnvironment = std::getenv("QVDEVICEOBSERVER_RESOURCES");
    if (fromEnvironment != nullptr && *fromEnvironment != '\0') {
        return fromEnvironment;
    }
    static const std::string besideLibrary = resourcesBesideLibrary();
    if (!besideLibrary.empty()) {
        return besideLibrary;
    }
    if (isDirectory(QV_INSTALL_RESOURCES_DIR)) {
        return QV_INSTALL_RESOURCES_DIR;
    }
    return QV_BUILD_RESOURCES_DIR;
}

void Bundle::setResourcesDirectory(std::optional<std::string> directory) {
    std::lock_guard<std::mutex> lock(gPlatformMutex);
    gResourcesOverride = std::move(directory);
}

namespace {

std::map<std::string, std::string>& resourceReplacements() {
    static std::map<std::string, std::string> replacements;
    return replacements;
}

}  // namespace

void Bundle::setPathForResource(const std::string& name, const std::string& type,
                                std::optional<std::string> path) {
    std::string fileName = type.empty() ? name : name + "." + type;
    if (path) {
        resourceReplacements()[fileName] = std::move(*path);
    } else {
        resourceReplacements().erase(fileName);
    }
}

std::optional<std::string> Bundle::replacementForResource(const std::string& name,
                                                          const std::string& type) {
    std::string fileName = type.empty() ? name : name + "." + type;
    if (auto it = resourceReplacements().find(fileName); it != resourceReplacements().end()) {
        return it->second;
    }
    return std::nullopt;
}

std::optional<std::string> Bundle::pathForResource(const std::string& name,
                                                   const std::string& type) {
    std::string fileName = type.empty() ? name : name + "." + type;
    if (auto it = resourceReplacements().find(fileName); it != resourceReplacements().end()) {
        if (!isRegularFile(it->second)) {
            return std::nullopt;
        }
        return it->second;
    }
    if (!isPlainFileName(name) || !isPlainFileName(fileName)) {
        return std::nullopt;
    }
    std::string path = resourcesDirectory() + "/" + fileName;
    if (!isRegularFile(path)) {
        return std::nullopt;
    }
    return path;
}

std::string Bundle::pathForHelperTool(const std::string& name) {
    // An odd name still gives a path inside the resources directory, one that does not exist.
    if (!isPlainFileName(name)) {
        return resourcesDirectory() + "/(invalid)";
    }
    // Beside the resources in the build tree and in a development directory; installed, in the
    // libexec directory, which lies at a fixed place relative to the installed resources.
    std::string directory = resourcesDirectory();
    std::string besideResources = directory + "/" + name;
    if (isRegularFile(besideResources)) {
        return besideResources;
    }
    std::string installed =
        (std::filesystem::path(directory) / QV_LIBEXEC_FROM_RESOURCES / name).lexically_normal();
    return isRegularFile(installed) ? installed : besideResources;
}

// ---- SystemVersion ----

int SystemVersion::current() {
    int version = gSystemVersion.load();
    return version == kNoVersionOverride ? kLinuxSystemVersion : version;
}

void SystemVersion::set(std::optional<int> version) {
    gSystemVersion.store(version ? *version : kNoVersionOverride);
}

std::optional<int> SystemVersion::installed() {
    int version = gSystemVersion.load();
    return version == kNoVersionOverride ? std::nullopt : std::optional<int>(version);
}

OSErr Gestalt(OSType selector, std::int32_t* response) {
    if (selector != gestaltSystemVersion) {
        return gestaltUndefSelectorErr;
    }
    if (response != nullptr) {
        *response = SystemVersion::current();
    }
    return noErr;
}

// ---- Workspace ----

Workspace& Workspace::shared() {
    std::lock_guard<std::mutex> lock(gPlatformMutex);
    if (!gWorkspace) {
        gWorkspace = std::make_shared<DBusWorkspace>();
    }
    return *gWorkspace;
}

void Workspace::setShared(std::shared_ptr<Workspace> workspace) {
    std::lock_guard<std::mutex> lock(gPlatformMutex);
    gWorkspace = std::move(workspace);
}

std::shared_ptr<Workspace> Workspace::installed() {
    std::lock_guard<std::mutex> lock(gPlatformMutex);
    return gWorkspace;
}

namespace {

std::optional<std::string> sessionBusAddress() {
    const char* address = g_getenv("DBUS_SESSION_BUS_ADDRESS");
    if (address != nullptr && *address != '\0') {
        return std::string(address);
    }
    // No autolaunch: it could start a bus daemon or prompt for one, neither of which a
    // question about a running application may do.
    const char* runtime = g_getenv("XDG_RUNTIME_DIR");
    if (runtime == nullptr || *runtime == '\0') {
        return std::nullopt;
    }
    std::string socket = std::string(runtime) + "/bus";
    std::error_code ec;
    if (!std::filesystem::is_socket(socket, ec)) {
        return std::nullopt;
    }
    gchar* escaped = g_dbus_address_escape_value(socket.c_str());
    std::string result = std::string("unix:path=") + escaped;
    g_free(escaped);
    return result;
}

// One asynchronous GIO operation, waited for on a private main context with a time-out. On
// time-out the operation is cancelled; should even the cancellation not come through in time the
// operation is abandoned (its completion then never runs: nobody iterates that context again).
class PendingOperation {
  public:
    PendingOperation(GMainContext* context, double timeoutSeconds)
        : context_(context), cancellable_(g_cancellable_new()), timeout_(timeoutSeconds) {}
    ~PendingOperation() {
        if (result_ != nullptr) {
            g_object_unref(result_);
        }
        g_object_unref(cancellable_);
    }
    PendingOperation(const PendingOperation&) = delete;
    PendingOperation& operator=(const PendingOperation&) = delete;

    GCancellable* cancellable() const { return cancellable_; }
    static void onReady(GObject*, GAsyncResult* result, gpointer self) {
        static_cast<PendingOperation*>(self)->result_ = G_ASYNC_RESULT(g_object_ref(result));
    }

    // The result, or nullptr when it did not come in time (the operation is then abandoned and
    // this object must not be destroyed).
    GAsyncResult* wait() {
        if (!waitUntil(g_get_monotonic_time() + microseconds())) {
            g_cancellable_cancel(cancellable_);
            if (!waitUntil(g_get_monotonic_time() + microseconds())) {
                return nullptr;
            }
        }
        return result_;
    }

  private:
    gint64 microseconds() const {
        double us = timeout_ * 1e6;
        return std::isfinite(us) && us > 0 ? static_cast<gint64>(std::min(us, 60e6)) : 0;
    }
    bool waitUntil(gint64 deadline) {
        while (result_ == nullptr) {
            gint64 remaining = deadline - g_get_monotonic_time();
            if (remaining <= 0) {
                return false;
            }
            GSource* wake = g_timeout_source_new(static_cast<guint>(remaining / 1000 + 1));
            g_source_set_callback(
                wake, [](gpointer) -> gboolean { return G_SOURCE_REMOVE; }, nullptr, nullptr);
            g_source_attach(wake, context_);
            g_main_context_iteration(context_, TRUE);
            g_source_destroy(wake);
            g_source_unref(wake);
        }
        return true;
    }

    GMainContext* context_;
    GCancellable* cancellable_;
    double timeout_;
    GAsyncResult* result_ = nullptr;
};

}  // namespace

struct DBusWorkspace::Connection {
    GDBusConnection* bus = nullptr;
    ~Connection() {
        if (bus != nullptr) {
            g_object_unref(bus);
        }
    }
};

DBusWorkspace::DBusWorkspace(double timeoutSeconds) : timeoutSeconds_(timeoutSeconds) {}

DBusWorkspace::~DBusWorkspace() = default;

bool DBusWorkspace::isApplicationRunning(const std::string& bundleIdentifier) {
    if (!g_dbus_is_name(bundleIdentifier.c_str()) ||
        g_dbus_is_unique_name(bundleIdentifier.c_str())) {
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    if (connection_ && g_dbus_connection_is_closed(connection_->bus)) {
        connection_.reset();
    }
    GMainContext* context = g_main_context_new();
    g_main_context_push_thread_default(context);
    bool running = false;

    if (!connection_) {
        std::optional<std::string> address = sessionBusAddress();
        if (address) {
            auto* pending = new PendingOperation(context, timeoutSeconds_);
            g_dbus_connection_new_for_address(
                address->c_str(),
                static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                  G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
                nullptr, pending->cancellable(), &PendingOperation::onReady, pending);
            if (GAsyncResult* result = pending->wait()) {
                GDBusConnection* bus = g_dbus_connection_new_for_address_finish(result, nullptr);
                if (bus != nullptr) {
                    connection_ = std::make_unique<Connection>();
                    connection_->bus = bus;
                }
                delete pending;
            }
        }
    }

    if (connection_) {
        auto* pending = new PendingOperation(context, timeoutSeconds_);
        double ms = std::isfinite(timeoutSeconds_) ? timeoutSeconds_ * 1000.0 : 60000.0;
        g_dbus_connection_call(connection_->bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                               "org.freedesktop.DBus", "NameHasOwner",
                               g_variant_new("(s)", bundleIdentifier.c_str()),
                               G_VARIANT_TYPE("(b)"), G_DBUS_CALL_FLAGS_NO_AUTO_START,
                               static_cast<int>(std::clamp(ms, 1.0, 60000.0)),
                               pending->cancellable(), &PendingOperation::onReady, pending);
        if (GAsyncResult* result = pending->wait()) {
            GVariant* reply = g_dbus_connection_call_finish(connection_->bus, result, nullptr);
            if (reply != nullptr) {
                gboolean owned = FALSE;
                g_variant_get(reply, "(b)", &owned);
                running = owned != FALSE;
                g_variant_unref(reply);
            }
            delete pending;
        } else {
            connection_.reset();  // a bus that does not answer is not asked again this way
        }
    }

    g_main_context_pop_thread_default(context);
    g_main_context_unref(context);  // an abandoned operation keeps its own reference
    return running;
}

// ---- ApplicationTermination ----

void ApplicationTermination::terminate() {
    std::function<void()> handler;
    {
        std::lock_guard<std::mutex> lock(gPlatformMutex);
        handler = gTerminationHandler;
    }
    if (handler) {
        handler();
        return;
    }
    std::exit(0);
}

void ApplicationTermination::setHandler(std::function<void()> handler) {
    std::lock_guard<std::mutex> lock(gPlatformMutex);
    gTerminationHandler = std::move(handler);
}

std::function<void()> ApplicationTermination::handler() {
    std::lock_guard<std::mutex> lock(gPlatformMutex);
    return gTerminationHandler;
}

}  // namespace qv
