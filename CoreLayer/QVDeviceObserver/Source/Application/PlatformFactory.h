// qv::PlatformFactory: the one place that decides what backs the framework's seams when an
// observer starts. With nothing installed the framework runs live on this machine:
//   - device registry: the udev feeder (enumeration, then hot-plug) on the thread-default
//     GMainContext of the thread that starts the first observer;
//   - run loop: that thread's GLib run loop (RunLoop::current() makes one when none is set);
//   - modem library: defaultModemBackend(), unless a backend was installed;
//   - tasks, workspace and resources: their own real defaults (Task.h, Platform.h).
// Tests and `qvdevice simulate` install their own platform (and their own run loop, modem backend
// and task launcher through the usual setters) before starting an observer.
//
// Observers share the registry: the platform starts with the first observer that starts and stops
// with the last one that stops; starting an observer twice counts once. A serial port enabler
// counts as an observer here (Events/RegistryFeedUsers.h).
#pragma once

#include <memory>

#include "DevicePlatform.h"

namespace qv {

class GsmBackend;

class PlatformFactory {
  public:
    // The platform for the next first start; nullptr restores the live one. A platform that is
    // running keeps running until its last observer stops.
    static void install(std::shared_ptr<DevicePlatform> platform);
    // The platform installed now (nullptr: the live one), to put back after a temporary one.
    static std::shared_ptr<DevicePlatform> installed();
    static std::shared_ptr<DevicePlatform> makeLivePlatform();

    // The modem library the live platform uses when none is installed.
    static std::shared_ptr<GsmBackend> defaultModemBackend();

    // An observer (or an enabler) starts or stops using the registry.
    static void observerStarted();
    static void observerStopped();
    // Observers using the registry now.
    static int observerCount();
    // Stops the running platform and forgets every user, for a simulator or test that starts a
    // fresh framework in the same process (observers of before must not be started again).
    static void resetForTesting();
};

}  // namespace qv
