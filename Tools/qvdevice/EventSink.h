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
    virtual void add(std::string kind, qv::Json fields) = 0;
    // A call by or to the framework, with the device's dictionary form when there is one.
    void addCall(const char* kind, const std::string& call,
                 const std::shared_ptr<QVDevice>& device = nullptr);
};

}  // namespace qvdevice
