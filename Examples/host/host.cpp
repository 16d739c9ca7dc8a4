// The smallest connection application: runs QVDeviceObserver on a thread of its own beside the
// application's GLib main loop (which never waits on it), prints the devices that come and go,
// chooses the first one as the default device and prints its network information as it arrives.
// The delegate's calls arrive on the main loop; the application asks the framework for anything
// through FrameworkThread::perform.
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
    void setFramework(qv::FrameworkThread* framework) { framework_ = framework; }

    void noteDeviceBecameAvailable(const std::shared_ptr<QVDevice>& device) override {
        std::printf("available: %s (Quorvel ID %d)\n", device->getDisplayName().c_str(),
                    device->qvDeviceId());
        if (auto port = device->portWithCapability("NetworkQuery")) {
            std::printf("  network queries on %s\n", port->name().c_str());
        }
        if (!haveDefault_ && framework_ != nullptr) {
            // The first device becomes the default one: the framework initialises its modem
            // and then polls its network information.
            haveDefault_ = true;
            framework_->perform([](QVDeviceObserver& observer) {
                observer.setDefaultDevice(0);
                observer.devicesChanged();
            });
            std::printf("  chosen as the default device\n");
        }
        std::fflush(stdout);
    }

    void noteDeviceBecameMissing(const std::shared_ptr<QVDevice>& device) override {
        std::printf("missing: %s\n", device->getDisplayName().c_str());
        haveDefault_ = false;
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
    qv::FrameworkThread* framework_ = nullptr;
    bool haveDefault_ = false;
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

    // The delegate's calls come to this thread's default main context, which `loop` runs.
    HostDelegate delegate;
    std::unique_ptr<qv::FrameworkThread> framework = qv::FrameworkThread::start(&delegate, nullptr);
    if (!framework) {
        std::fprintf(stderr, "host: the framework is running already\n");
        return 1;
    }
    delegate.setFramework(framework.get());
    std::printf("watching for devices\n");
    std::fflush(stdout);

    g_main_loop_run(loop);

    framework->stop();
    g_main_loop_unref(loop);
    std::printf("stopped\n");
    return 0;
}
