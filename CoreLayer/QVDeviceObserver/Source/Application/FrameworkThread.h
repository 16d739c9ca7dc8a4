// qv::FrameworkThread: the framework on a thread of its own, for a desktop application whose main
// loop must never wait on it. Identification sleeps through a stick's power-up delay and AT probes
// wait on slow ports; on the host's own loop that freezes its windows for seconds.
//
// start() makes a thread with its own GMainContext (its thread-default context) and runs there the
// shared observer (delegate set, started) and the shared priority queue. Everything the framework
// does stays on that thread. Two things cross:
//   - the delegate's calls, posted to the host's context in the order the framework made them,
//     with the values they carry. The host gets its own copy of each device record (the
//     framework keeps changing its own); one unit is the same host object in every call, from
//     noteDeviceBecameAvailable to noteDeviceBecameMissing;
//   - perform(work): work runs on the framework's thread with the observer (setDefaultDevice,
//     devicesChanged, rules, ...).
// stop() stops the observer and the queue on their thread and joins it; the destructor does the
// same. No delegate call reaches the host after stop() returned.
//
// One framework thread at a time: the observer is shared by the process.
#pragma once

#include <glib.h>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>

class QVDeviceObserver;
class QVDeviceObserverDelegate;

namespace qv {

class RunLoop;
class HostCallQueue;
class HostDelegateRelay;

class FrameworkThread {
  public:
    // hostContext: where the delegate's calls are made (nullptr: the global default main context,
    // the one g_main_loop_new(nullptr, ...) runs). nullptr when a framework thread already runs.
    static std::unique_ptr<FrameworkThread> start(QVDeviceObserverDelegate* delegate,
                                                  GMainContext* hostContext);
    ~FrameworkThread();
    FrameworkThread(const FrameworkThread&) = delete;
    FrameworkThread& operator=(const FrameworkThread&) = delete;

    // Runs work on the framework's thread, after everything posted before it. Safe from any
    // thread; after stop() it is dropped.
    void perform(std::function<void(QVDeviceObserver&)> work);
    // Stops the observer and the queue on the framework's thread, joins it and drops the delegate
    // calls not yet made. Safe to call twice; never from inside perform's work.
    void stop();

  private:
    FrameworkThread(QVDeviceObserverDelegate* delegate, GMainContext* hostContext);
    void run(std::function<void()> started);

    std::shared_ptr<HostCallQueue> hostCalls_;
    std::unique_ptr<HostDelegateRelay> relay_;
    std::shared_ptr<RunLoop> loop_;  // the framework thread's; set before start() returns
    std::atomic<bool> quit_{false};
    std::thread thread_;
};

}  // namespace qv
