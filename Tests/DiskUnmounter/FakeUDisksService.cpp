#include "FakeUDisksService.h"

#include <gio/gio.h>
#include <sys/sysmacros.h>

namespace diskunmountertest {

namespace {

constexpr const char* kRoot = "/org/freedesktop/UDisks2";

constexpr const char* kIntrospection = R"(<node>
  <interface name='org.freedesktop.DBus.ObjectManager'>
    <method name='GetManagedObjects'><arg type='a{oa{sa{sv}}}' direction='out'/></method>
  </interface>
  <interface name='org.freedesktop.UDisks2.Filesystem'>
    <method name='Unmount'><arg type='a{sv}' name='options' direction='in'/></method>
  </interface>
  <interface name='org.freedesktop.UDisks2.Drive'>
    <method name='Eject'><arg type='a{sv}' name='options' direction='in'/></method>
  </interface>
</node>)";

std::string blockPath(const std::string& name) {
    return std::string(kRoot) + "/block_devices/" + name;
}

std::string drivePath(const std::string& name) {
    return std::string(kRoot) + "/drives/" + name;
}

void handleMethodCall(GDBusConnection*, const gchar*, const gchar* objectPath, const gchar*,
                      const gchar* method, GVariant* parameters, GDBusMethodInvocation* invocation,
                      gpointer service) {
    static_cast<FakeUDisksService*>(service)->handle(objectPath, method, parameters, invocation);
}

const GDBusInterfaceVTable kVTable = {handleMethodCall, nullptr, nullptr, {nullptr}};

}  // namespace

FakeUDisksService::FakeUDisksService(std::string busAddress, std::vector<FakeBlock> blocks)
    : busAddress_(std::move(busAddress)), blocks_(std::move(blocks)) {}

FakeUDisksService::~FakeUDisksService() {
    if (thread_.joinable()) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            // Quit from inside the loop, so that a quit cannot come before the loop runs.
            if (loop_) {
                g_main_context_invoke(
                    g_main_loop_get_context(loop_),
                    [](gpointer loop) {
                        g_main_loop_quit(static_cast<GMainLoop*>(loop));
                        return gboolean(G_SOURCE_REMOVE);
                    },
                    loop_);
            }
        }
        thread_.join();
    }
}

bool FakeUDisksService::start(std::string* error) {
    thread_ = std::thread([this] { serve(); });
    std::unique_lock<std::mutex> lock(mutex_);
    started_.wait(lock, [this] { return finishedStarting_; });
    *error = startError_;
    return startError_.empty();
}

std::vector<std::string> FakeUDisksService::calls() {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
}

void FakeUDisksService::serve() {
    GMainContext* context = g_main_context_new();
    g_main_context_push_thread_default(context);
    GMainLoop* loop = g_main_loop_new(context, FALSE);
    GError* gerror = nullptr;
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(kIntrospection, &gerror);
    GDBusConnection* connection =
        node
            ? g_dbus_connection_new_for_address_sync(
                  busAddress_.c_str(),
                  static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                    G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
                  nullptr, nullptr, &gerror)
            : nullptr;
    std::vector<guint> registrations;
    auto exportObject = [&](const std::string& path, int interfaceIndex) {
        registrations.push_back(g_dbus_connection_register_object(
            connection, path.c_str(), node->interfaces[interfaceIndex], &kVTable, this, nullptr,
            nullptr));
    };
    GVariant* owned = nullptr;
    if (connection) {
        exportObject(kRoot, 0);
        for (const FakeBlock& block : blocks_) {
            exportObject(blockPath(block.name), 1);
            if (!block.drive.empty()) {
                exportObject(drivePath(block.drive), 2);
            }
        }
        // DO_NOT_QUEUE: the name is ours at once or the call says it is not.
        owned = g_dbus_connection_call_sync(
            connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
            "RequestName", g_variant_new("(su)", "org.freedesktop.UDisks2", 4u),
            G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &gerror);
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!owned) {
            startError_ = gerror ? gerror->message : "cannot serve";
        } else {
            loop_ = loop;
        }
        finishedStarting_ = true;
    }
    g_clear_error(&gerror);
    started_.notify_all();
    if (owned) {
        g_variant_unref(owned);
        g_main_loop_run(loop);
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        loop_ = nullptr;
    }
    for (guint id : registrations) {
        g_dbus_connection_unregister_object(connection, id);
    }
    if (connection) {
        g_dbus_connection_close_sync(connection, nullptr, nullptr);
        g_object_unref(connection);
    }
    if (node) {
        g_dbus_node_info_unref(node);
    }
    g_main_loop_unref(loop);
    g_main_context_pop_thread_default(context);
    g_main_context_unref(context);
}

GVariant* FakeUDisksService::managedObjects() {
    GVariantBuilder objects;
    g_variant_builder_init(&objects, G_VARIANT_TYPE("a{oa{sa{sv}}}"));
    // An object that is no block device at all.
    g_variant_builder_add_parsed(
        &objects, "{%o, {'org.freedesktop.UDisks2.Manager': {'Version': <'2.9.4'>}}}",
        (std::string(kRoot) + "/Manager").c_str());
    for (const FakeBlock& block : blocks_) {
        GVariantBuilder interfaces;
        g_variant_builder_init(&interfaces, G_VARIANT_TYPE("a{sa{sv}}"));
        GVariantBuilder properties;
        g_variant_builder_init(&properties, G_VARIANT_TYPE_VARDICT);
        g_variant_builder_add(&properties, "{sv}", "DeviceNumber",
                              g_variant_new_uint64(makedev(block.major, block.minor)));
        std::string drive = block.drive.empty() ? "/" : drivePath(block.drive);
        g_variant_builder_add(&properties, "{sv}", "Drive",
                              g_variant_new_object_path(drive.c_str()));
        g_variant_builder_add(&interfaces, "{sa{sv}}", "org.freedesktop.UDisks2.Block",
                              &properties);
        if (block.filesystem) {
            GVariantBuilder points;
            g_variant_builder_init(&points, G_VARIANT_TYPE("aay"));
            for (const std::string& point : block.mountPoints) {
                g_variant_builder_add_value(&points, g_variant_new_bytestring(point.c_str()));
            }
            GVariantBuilder filesystem;
            g_variant_builder_init(&filesystem, G_VARIANT_TYPE_VARDICT);
            g_variant_builder_add(&filesystem, "{sv}", "MountPoints",
                                  g_variant_builder_end(&points));
            g_variant_builder_add(&interfaces, "{sa{sv}}", "org.freedesktop.UDisks2.Filesystem",
                                  &filesystem);
        }
        g_variant_builder_add(&objects, "{oa{sa{sv}}}", blockPath(block.name).c_str(), &interfaces);
    }
    return g_variant_new("(a{oa{sa{sv}}})", &objects);
}

void FakeUDisksService::handle(const std::string& objectPath, const std::string& method,
                               GVariant* parameters, GDBusMethodInvocation* invocation) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (method == "GetManagedObjects") {
        g_dbus_method_invocation_return_value(invocation, managedObjects());
        return;
    }
    GVariant* options = g_variant_get_child_value(parameters, 0);
    gboolean noInteraction = FALSE;
    g_variant_lookup(options, "auth.no_user_interaction", "b", &noInteraction);
    gboolean force = FALSE;
    g_variant_lookup(options, "force", "b", &force);
    g_variant_unref(options);
    std::string object = objectPath.substr(objectPath.rfind('/') + 1);
    calls_.push_back(method + " " + object + (noInteraction ? " (no interaction)" : "") +
                     (force ? " (force)" : ""));
    for (FakeBlock& block : blocks_) {
        if (method == "Unmount" && blockPath(block.name) == objectPath) {
            if ((block.busy && !force) || block.mountPoints.empty()) {
                std::string message =
                    block.busy ? "Error unmounting /dev/" + block.name + ": target is busy"
                               : "Not mounted";
                g_dbus_method_invocation_return_dbus_error(
                    invocation,
                    block.busy ? "org.freedesktop.UDisks2.Error.DeviceBusy"
                               : "org.freedesktop.UDisks2.Error.NotMounted",
                    message.c_str());
                return;
            }
            block.mountPoints.erase(block.mountPoints.begin());
        }
    }
    g_dbus_method_invocation_return_value(invocation, nullptr);
}

}  // namespace diskunmountertest
