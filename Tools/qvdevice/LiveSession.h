// The framework live on this machine, as `qvdevice run` embeds it: the observer with the
// platform factory's defaults (udev, the GLib loop, the modem library), an application that
// writes down everything it hears and may choose a default device, and every event printed at
// once with the simulator's event lines (t = seconds since the session began).
#pragma once

#include <memory>
#include <optional>
#include <ostream>
#include <string>

#include "Foundation/Value.h"

namespace qvdevice {

struct LiveSessionOptions {
    qv::Value rules;  // an array of rule dictionaries, or nil for none
    bool generic = false;
    std::optional<int> defaultDevice;
    bool pretty = false;
};

class LiveSession {
  public:
    LiveSession(std::ostream& out, LiveSessionOptions options);
    ~LiveSession();
    LiveSession(const LiveSession&) = delete;
    LiveSession& operator=(const LiveSession&) = delete;

    // Starts the observer and the priority queue on the calling thread's run loop. When the
    // framework raises on the way (a device database it refuses), nothing stays started and the
    // exception passes on; stop() is then a no-op.
    void start();
    // Stops the observer (the application quits); prints a closing line with the devices present.
    void stop();

  private:
    void forgetUdevRunningAnswer();
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace qvdevice
