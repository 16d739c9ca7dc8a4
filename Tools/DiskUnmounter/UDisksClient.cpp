#include "UDisksClient.h"

#include <gio/gio.h>
#include <sys/sysmacros.h>

#include <algorithm>

namespace diskunmounter {

namespace {

constexpr const char* kService = "org.freedesktop.UDisks2";
constexpr const char* kManagerPath = "/org/freedesktop/UDisks2";
constexpr const char* kBlockInterface = "org.freedesktop.UDisks2.Block";
constexpr const char* kFilesystemInterface = "org.freedesktop.UDisks2.Filesystem";
constexpr const char* kDriveInterface = "org.freedesktop.UDisks2.Drive";
// Unmounting a busy filesystem or ejecting a slow drive can take a while.
constexpr int kCallTimeoutMilliseconds = 60 * 1000;

// Frees `error`, handing its message (after `prefix`) to `out` when the caller wants it.
void passOn(GError* error, std::string* out, const char* prefix = "") {
    if (out) {
        if (error) {
            g_dbus_error_strip_remote_error(error);
        }
        *out = std::string(prefix) + (error ? error->message : "unknown error");
    }
    g_clear_error(&error);
}

// Calls a method of the bus daemon itself and answers its single reply value, or nullptr.
GVariant* callBus(GDBusConnection* connection, const char* method, GVariant* parameters,
                  const char* replyType, std::string* error) {
    GError* gerror = nullptr;
    GVariant* reply = g_dbus_connection_call_sync(
        connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", method,
        parameters, G_VARIANT_TYPE(replyType), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &gerror);
    if (!reply) {
        passOn(gerror, error);
    }
    return reply;
}

bool serviceAvailable(GDBusConnection* connection, std::string* why) {
    GVariant* owned =
        callBus(connection, "NameHasOwner", g_variant_new("(s)", kService), "(b)", why);
    if (!owned) {
        return false;
    }
    gboolean hasOwner = FALSE;
    g_variant_get(owned, "(b)", &hasOwner);
    g_variant_unref(owned);
    if (hasOwner) {
        return true;
    }
    GVariant* activatable = callBus(connection, "ListActivatableNames", nullptr, "(as)", why);
    if (!activatable) {
        return false;
    }
    GVariant* names = g_variant_get_child_value(activatable, 0);
    bool found = false;
    for (gsize i = 0; i < g_variant_n_children(names) && !found; ++i) {
        const gchar* name = nullptr;
        g_variant_get_child(names, i, "&s", &name);
        found = g_strcmp0(name, kService) == 0;
    }
    g_variant_unref(names);
    g_variant_unref(activatable);
    if (!found && why) {
        *why = "udisks2 is not on the bus";
    }
    return found;
}

// Reads the properties of one object's Block and Filesystem interfaces (a{sa{sv}}).
UDisksClient::Block readBlock(const gchar* objectPath, GVariant* interfaces, bool* isBlock) {
    // Built with its strings in place: assigning them to a default-constructed block makes
    // GCC 12 at -O3 warn about an overlapping copy that cannot happen (-Wrestrict).
    UDisksClient::Block block{
        .objectPath = std::string(objectPath), .drivePath = std::string("/"), .mountPoints = {}};
    *isBlock = false;
    if (GVariant* properties =
            g_variant_lookup_value(interfaces, kBlockInterface, G_VARIANT_TYPE_VARDICT)) {
        *isBlock = true;
        guint64 number = 0;
        if (g_variant_lookup(properties, "DeviceNumber", "t", &number)) {
            block.major = static_cast<unsigned>(major(number));
            block.minor = static_cast<unsigned>(minor(number));
        }
        const gchar* drive = nullptr;
        if (g_variant_lookup(properties, "Drive", "&o", &drive)) {
            block.drivePath = drive;
        }
        g_variant_unref(properties);
    }
    if (GVariant* properties =
            g_variant_lookup_value(interfaces, kFilesystemInterface, G_VARIANT_TYPE_VARDICT)) {
        block.hasFilesystem = true;
        if (GVariant* mountPoints =
                g_variant_lookup_value(properties, "MountPoints", G_VARIANT_TYPE("aay"))) {
            for (gsize i = 0; i < g_variant_n_children(mountPoints); ++i) {
                GVariant* point = g_variant_get_child_value(mountPoints, i);
                // A byte string with its terminating zero.
                block.mountPoints.emplace_back(g_variant_get_bytestring(point));
                g_variant_unref(point);
            }
            g_variant_unref(mountPoints);
        }
        g_variant_unref(properties);
    }
    return block;
}

}  // namespace

std::unique_ptr<UDisksClient> UDisksClient::connect(const std::string& busAddress,
                                                    std::string* why) {
    GError* gerror = nullptr;
    GDBusConnection* connection =
        busAddress.empty()
            ? g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &gerror)
            : g_dbus_connection_new_for_address_sync(
                  busAddress.c_str(),
                  static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                    G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
                  nullptr, nullptr, &gerror);
    if (!connection) {
        passOn(gerror, why, "no system bus: ");
        return nullptr;
    }
    // A bus that goes away must end a call with an error, not the process.
    g_dbus_connection_set_exit_on_close(connection, FALSE);
    if (!serviceAvailable(connection, why)) {
        g_object_unref(connection);
        return nullptr;
    }
    return std::unique_ptr<UDisksClient>(new UDisksClient(connection));
}

UDisksClient::~UDisksClient() {
    g_object_unref(connection_);
}

bool UDisksClient::blocks(std::vector<Block>* result, std::string* error) {
    GError* gerror = nullptr;
    GVariant* reply = g_dbus_connection_call_sync(
        connection_, kService, kManagerPath, "org.freedesktop.DBus.ObjectManager",
        "GetManagedObjects", nullptr, G_VARIANT_TYPE("(a{oa{sa{sv}}})"), G_DBUS_CALL_FLAGS_NONE,
        kCallTimeoutMilliseconds, nullptr, &gerror);
    if (!reply) {
        passOn(gerror, error);
        return false;
    }
    result->clear();
    GVariant* objects = g_variant_get_child_value(reply, 0);
    GVariantIter iter;
    g_variant_iter_init(&iter, objects);
    const gchar* objectPath = nullptr;
    GVariant* interfaces = nullptr;
    while (g_variant_iter_loop(&iter, "{&o@a{sa{sv}}}", &objectPath, &interfaces)) {
        bool isBlock = false;
        Block block = readBlock(objectPath, interfaces, &isBlock);
        if (isBlock) {
            result->push_back(std::move(block));
        }
    }
    g_variant_unref(objects);
    g_variant_unref(reply);
    return true;
}

bool UDisksClient::callWithOptions(const std::string& objectPath, const char* interface,
                                   const char* method, bool force, std::string* error) {
    if (!g_variant_is_object_path(objectPath.c_str())) {
        if (error) {
            *error = "not an object path: " + objectPath;
        }
        return false;
    }
    GVariantBuilder options;
    g_variant_builder_init(&options, G_VARIANT_TYPE_VARDICT);
    // Started in the background, the unmounter has nobody to ask for a password.
    g_variant_builder_add(&options, "{sv}", "auth.no_user_interaction",
                          g_variant_new_boolean(TRUE));
    if (force) {
        g_variant_builder_add(&options, "{sv}", "force", g_variant_new_boolean(TRUE));
    }
    GError* gerror = nullptr;
    GVariant* reply = g_dbus_connection_call_sync(
        connection_, kService, objectPath.c_str(), interface, method,
        g_variant_new("(a{sv})", &options), nullptr, G_DBUS_CALL_FLAGS_NONE,
        kCallTimeoutMilliseconds, nullptr, &gerror);
    if (!reply) {
        passOn(gerror, error);
        return false;
    }
    g_variant_unref(reply);
    return true;
}

bool UDisksClient::unmount(const std::string& objectPath, bool force, std::string* error) {
    return callWithOptions(objectPath, kFilesystemInterface, "Unmount", force, error);
}

bool UDisksClient::eject(const std::string& drivePath, std::string* error) {
    return callWithOptions(drivePath, kDriveInterface, "Eject", false, error);
}

}  // namespace diskunmounter
