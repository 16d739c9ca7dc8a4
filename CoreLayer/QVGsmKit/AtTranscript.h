// qv::AtTranscript: lets a tool listen to the AT engine's conversations as they happen: each
// command as it is sent and each piece of bytes as it is read, per port, with the time. Meant for
// recordings of a real modem (`qvdevice record --modem`); with no listener installed the engine
// pays one atomic load per command and per read.
//
// The engine calls the listener on its I/O thread, so a listener must be safe to call from any
// thread and must return quickly (no I/O, no waiting).
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace qv {

class AtTranscriptListener {
  public:
    virtual ~AtTranscriptListener() = default;
    // `portPath` is the path the framework asked for ("/dev/cu.ttyUSB2"); `seconds` the time on
    // the engine's clock (the monotonic clock unless a test gave the engine its own).
    virtual void commandSent(const std::string& portPath, const std::string& command,
                             double seconds) = 0;
    virtual void bytesReceived(const std::string& portPath, std::string_view bytes,
                               double seconds) = 0;
};

class AtTranscript {
  public:
    // nullptr removes the listener.
    static void setListener(std::shared_ptr<AtTranscriptListener> listener);

    // What the engine calls, with the time on its clock.
    static void commandSent(const std::string& portPath, const std::string& command,
                            double seconds);
    static void bytesReceived(const std::string& portPath, std::string_view bytes, double seconds);
};

}  // namespace qv
