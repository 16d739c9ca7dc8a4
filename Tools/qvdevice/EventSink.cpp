#include "EventSink.h"

#include <utility>

#include "Model/QVDevice.h"

namespace qvdevice {

void EventSink::addCall(const char* kind, const std::string& call,
                        const std::shared_ptr<QVDevice>& device) {
    qv::Json fields = qv::Json::object();
    fields["call"] = call;
    if (device) {
        fields["device"] = qv::jsonFromValue(device->toDictionary());
    }
    add(kind, std::move(fields));
}

}  // namespace qvdevice
