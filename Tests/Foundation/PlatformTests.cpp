#include <gio/gio.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "Foundation/Platform.h"

namespace {

namespace fs = std::filesystem;

class TemporaryDirectory {
  public:
    TemporaryDirectory() {
        std::string pattern = (fs::temp_directory_path() / "qv-platform-XXXXXX").string();
        path_ = mkdtemp(pattern.data());
    }
    ~TemporaryDirectory() { fs::remove_all(path_); }
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

TEST(Bundle, FindsResourcesInTheChosenDirectoryOnly) {
    TemporaryDirectory dir;
    std::ofstream(dir.path() + "/DeviceDatabase.plist") << "<plist/>";
    fs::create_directory(dir.path() + "/Folder.plist");

    qv::Bundle::setResourcesDirectory(dir.path());
    EXPECT_EQ(qv::Bundle::resourcesDirectory(), dir.path());
    EXPECT_EQ(qv::Bundle::pathForResource("DeviceDatabase", "plist"),
              dir.path() + "/DeviceDatabase.plist");
    EXPECT_EQ(qv::Bundle::pathForResource("DeviceDatabase", "xml"), std::nullopt);
    EXPECT_EQ(qv::Bundle::pathForResource("Folder", "plist"), std::nullopt);
    // Names are file names inside the directory, never paths out of it.
    EXPECT_EQ(qv::Bundle::pathForResource(
                  "../" + fs::path(dir.path()).filename().string() + "/DeviceDatabase", "plist"),
              std::nullopt);
    EXPECT_EQ(qv::Bundle::pathForHelperTool("CardPrepTool"), dir.path() + "/CardPrepTool");
    EXPECT_EQ(qv::Bundle::pathForHelperTool("../../bin/sh").find(".."), std::string::npos);

    // Without an override: the environment, then an installed or the build tree's directory.
    qv::Bundle::setResourcesDirectory(std::nullopt);
    const char* saved = std::getenv("QVDEVICEOBSERVER_RESOURCES");
    std::optional<std::string> previous =
        saved != nullptr ? std::optional<std::string>(saved) : std::nullopt;
    setenv("QVDEVICEOBSERVER_RESOURCES", dir.path().c_str(), 1);
    EXPECT_EQ(qv::Bundle::resourcesDirectory(), dir.path());
    unsetenv("QVDEVICEOBSERVER_RESOURCES");
    EXPECT_NE(qv::Bundle::resourcesDirectory(), dir.path());
    EXPECT_FALSE(qv::Bundle::resourcesDirectory().empty());
    if (previous) {
        setenv("QVDEVICEOBSERVER_RESOURCES", previous->c_str(), 1);
    }
}

TEST(SystemVersion, LinuxCountsAsLeopardOrLaterUnlessInjected) {
    std::int32_t version = 0;
    EXPECT_EQ(qv::Gestalt(qv::gestaltSystemVersion, &version), qv::noErr);
    EXPECT_GE(version, 0x1050);

    qv::SystemVersion::set(0x1049);
    EXPECT_EQ(qv::Gestalt(qv::gestaltSystemVersion, &version), qv::noErr);
    EXPECT_EQ(version, 0x1049);
    qv::SystemVersion::set(std::nullopt);
    EXPECT_EQ(qv::SystemVersion::current(), 0x1050);

    EXPECT_EQ(qv::Gestalt(0x63707520 /* 'cpu ' */, &version), qv::gestaltUndefSelectorErr);
}

TEST(Workspace, SharedWorkspaceIsReplaceable) {
    qv::Workspace::setShared(
        std::make_shared<qv::FixedWorkspace>(std::set<std::string>{"com.example.Connect"}));
    EXPECT_TRUE(qv::Workspace::shared().isApplicationRunning("com.example.Connect"));
    EXPECT_FALSE(qv::Workspace::shared().isApplicationRunning("com.example.Other"));
    qv::Workspace::setShared(nullptr);
    EXPECT_NE(dynamic_cast<qv::DBusWorkspace*>(&qv::Workspace::shared()), nullptr);
}

// Restores the session bus environment after a test that changes it.
class BusEnvironment {
  public:
    BusEnvironment()
        : address_(get("DBUS_SESSION_BUS_ADDRESS")), runtime_(get("XDG_RUNTIME_DIR")) {}
    ~BusEnvironment() {
        restore("DBUS_SESSION_BUS_ADDRESS", address_);
        restore("XDG_RUNTIME_DIR", runtime_);
    }

  private:
    static std::optional<std::string> get(const char* name) {
        const char* value = std::getenv(name);
        return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
    }
    static void restore(const char* name, const std::optional<std::string>& value) {
        if (value) {
            setenv(name, value->c_str(), 1);
        } else {
            unsetenv(name);
        }
    }
    std::optional<std::string> address_;
    std::optional<std::string> runtime_;
};

TEST(DBusWorkspace, NoBusOrASilentBusMeansNotRunning) {
    BusEnvironment saved;
    TemporaryDirectory dir;
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
    setenv("XDG_RUNTIME_DIR", dir.path().c_str(), 1);  // holds no bus socket
    qv::DBusWorkspace noBus(0.2);
    EXPECT_FALSE(noBus.isApplicationRunning("com.example.Connect"));

    setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + dir.path() + "/missing").c_str(), 1);
    EXPECT_FALSE(noBus.isApplicationRunning("com.example.Connect"));

    // A socket that accepts connections but never says a word: the question times out.
    std::string socketPath = dir.path() + "/silent";
    int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(listener, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socketPath.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(listener, 4), 0);
    setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + socketPath).c_str(), 1);
    qv::DBusWorkspace silent(0.2);
    EXPECT_FALSE(silent.isApplicationRunning("com.example.Connect"));
    close(listener);
}

TEST(DBusWorkspace, AsksTheSessionBusWhetherTheNameIsOwned) {
    BusEnvironment saved;
    GTestDBus* bus = g_test_dbus_new(G_TEST_DBUS_NONE);
    g_test_dbus_up(bus);
    const char* address = g_test_dbus_get_bus_address(bus);
    ASSERT_NE(address, nullptr);

    GError* error = nullptr;
    GDBusConnection* app = g_dbus_connection_new_for_address_sync(
        address,
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    ASSERT_NE(app, nullptr) << (error != nullptr ? error->message : "");
    GVariant* reply = g_dbus_connection_call_sync(
        app, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
        g_variant_new("(su)", "com.example.Connect", 4u), G_VARIANT_TYPE("(u)"),
        G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, &error);
    ASSERT_NE(reply, nullptr) << (error != nullptr ? error->message : "");
    g_variant_unref(reply);

    qv::DBusWorkspace workspace(2.0);
    EXPECT_TRUE(workspace.isApplicationRunning("com.example.Connect"));
    EXPECT_FALSE(workspace.isApplicationRunning("com.example.Other"));
    EXPECT_FALSE(workspace.isApplicationRunning("not a bus name"));
    EXPECT_FALSE(workspace.isApplicationRunning(""));

    // The application quits: the kept connection gives a fresh answer.
    g_dbus_connection_close_sync(app, nullptr, nullptr);
    g_object_unref(app);
    bool stillOwned = true;
    for (int i = 0; i < 100 && stillOwned; ++i) {
        stillOwned = workspace.isApplicationRunning("com.example.Connect");
    }
    EXPECT_FALSE(stillOwned);

    g_test_dbus_down(bus);
    g_object_unref(bus);
}

TEST(ApplicationTermination, CallsTheHandlerOrExitsCleanly) {
    int calls = 0;
    qv::ApplicationTermination::setHandler([&] { ++calls; });
    qv::ApplicationTermination::terminate();
    EXPECT_EQ(calls, 1);
    qv::ApplicationTermination::setHandler(nullptr);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(qv::ApplicationTermination::terminate(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
