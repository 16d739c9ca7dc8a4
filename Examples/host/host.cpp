// The smallest connection application: embeds QVDeviceObserver on a GLib main loop, prints the
// devices that come and go, chooses the first one as the default device and prints its network
// information as it arrives.
//
//     host [SECONDS]    runs until interrupted, or for SECONDS
#include <QVDeviceObserver/QVDeviceObserver.h>
#include <glib-unix.h>
#include <glib.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

namespace {

class HostDelegate : public QVDeviceObserverDelegate {
  public:
    explicit HostDelegate(QVDeviceObserver& observer) : observer_(observer) {}

    void noteDeviceBecameAvailable(const std::shared_ptr<QVDevice>& device) override {
        std::printf("available: %s (Quorvel ID %d)\n", device->getDisplayName().c_str(),
                    device->qvDeviceId());
        if (auto port = device->portWithCapability("NetworkQuery")) {
            std::printf("  network queries on %s\n", port->name().c_str());
        }
        if (!observer_.defaultDevice()) {
            // The first device becomes the default one: the framework initialises its modem
            // and then polls its network information.
            observer_.setDefaultDevice(0);
            observer_.devicesChanged();
            std::printf("  chosen as the default device\n");
        }
        std::fflush(stdout);
    }

    void noteDeviceBecameMissing(const std::shared_ptr<QVDevice>& device) override {
        std::printf("missing: %s\n", device->getDisplayName().c_str());
        std::fflush(stdout);
    }

    void noteDeviceDidRecognize(const std::shared_ptr<QVDevice>& device) override {
        std::printf("modem ready: %s\n", device->getDisplayName().c_str());
        std::fflush(stdout);
    }

    void noteDeviceRecognitionError(int code) override {
        std::printf("modem initialisation failed: result code %d\n", code);
        std::fflush(stdout);
    }

    void noteNetworkInfoDidUpdate(const qv::Value& info,
                                  const std::shared_ptr<QVDevice>& sender) override {
        std::printf("network information of %s: %s\n",
                    sender ? sender->getDisplayName().c_str() : "(no device)",
                    info.description().c_str());
        std::fflush(stdout);
    }

  private:
    QVDeviceObserver& observer_;
};

gboolean quit(gpointer loop) {
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_REMOVE;
}

}  // namespace

int main(int argc, char** argv) {
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    g_unix_signal_add(SIGINT, quit, loop);
    g_unix_signal_add(SIGTERM, quit, loop);
    if (argc > 1) {
        unsigned seconds = static_cast<unsigned>(std::strtoul(argv[1], nullptr, 10));
        g_timeout_add_seconds(seconds, quit, loop);
    }

    std::shared_ptr<QVDeviceObserver> observer = QVDeviceObserver::getInstance();
    HostDelegate delegate(*observer);
    observer->setDelegate(&delegate);
    observer->start();
    QVPrioQueue::getInstance()->startExecution();
    std::printf("watching for devices\n");
    std::fflush(stdout);

    g_main_loop_run(loop);

    observer->stop();
    g_main_loop_unref(loop);
    std::printf("stopped\n");
    return 0;
}
