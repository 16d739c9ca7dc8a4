#include "EventSink.h"

#include <utility>

#include "Model/QVDevice.h"

namespace qvdevice {

void EventSink::addCall(const char* kind, const std::string& call,
                        const std::shared_ptr<QVDevice>& device) {
    qv::Json fields = qv::Json::object();
    fields["call"] = call;
    add(kind, std::move(fields), device ? deviceRecord(*device) : std::string());
}

std::string EventSink::deviceRecord(const QVDevice& device) {
    return qv::jsonTextFromValue(device.toDictionary());
}

}  // namespace qvdevice
