// qvdevice::EventSink: where a story's events go as they happen: collected for `simulate`, printed
// at once by `run`. Both stamp each event with the seconds since their own start.
#pragma once

#include <memory>
#include <string>

#include "Foundation/JsonValue.h"

class QVDevice;

namespace qvdevice {

class EventSink {
  public:
    virtual ~EventSink() = default;
    // `deviceRecord`: the JSON text of the device the event names (see deviceRecord()), or empty.
    virtual void add(std::string kind, qv::Json fields, std::string deviceRecord) = 0;
    void add(std::string kind, qv::Json fields) { add(std::move(kind), std::move(fields), {}); }
    // A call by or to the framework, with the device's dictionary form when there is one.
    void addCall(const char* kind, const std::string& call,
                 const std::shared_ptr<QVDevice>& device = nullptr);

    // The device's dictionary form as one line of JSON text.
    static std::string deviceRecord(const QVDevice& device);
};

}  // namespace qvdevice
