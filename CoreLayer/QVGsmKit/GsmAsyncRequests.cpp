#include "GsmAsyncRequests.h"

#include <memory>
#include <string>
#include <utility>

#include "GsmBackend.h"

namespace {

qv::GsmRequest makeRequest(std::int32_t deviceId, const char* portName) {
    qv::GsmRequest request;
    request.deviceId = deviceId;
    request.portPath = qv::gsmPortPath(portName);
    request.loop = qv::RunLoop::currentShared();
    return request;
}

// Delivers each answer as a listener call on the requesting run loop, whichever thread the
// backend answers from.
qv::GsmAnswerHandler deliverTo(std::shared_ptr<qv::RunLoop> loop, GsmNetworkInfoListener listener,
                               GsmListener plainListener, void* context) {
    return [loop = std::move(loop), listener, plainListener, context](qv::GsmAnswer answer) {
        loop->post([listener, plainListener, context, answer = std::move(answer)]() mutable {
            qv::Value slot = std::move(answer.data);
            qv::Value* data = slot.isNil() ? nullptr : &slot;
            if (listener != nullptr) {
                listener(answer.code, context, data, answer.complete);
            } else if (plainListener != nullptr) {
                plainListener(answer.code, context, data);
            }
        });
    };
}

}  // namespace

std::int32_t startGroundInitEx(std::int32_t deviceId, const char* portName, const char* initScript,
                               GsmListener listener, void* context) {
    if (portName == nullptr || *portName == '\0') {
        return 0;
    }
    qv::GsmRequest request = makeRequest(deviceId, portName);
    auto handler = deliverTo(request.loop, nullptr, listener, context);
    return qv::GsmBackend::current()->startGroundInit(
               request, initScript != nullptr ? initScript : "", std::move(handler))
               ? 1
               : 0;
}

std::int32_t getTheDeviceInfo(std::int32_t deviceId, const char* portName, GsmListener listener,
                              void* context) {
    if (portName == nullptr || *portName == '\0') {
        return 0;
    }
    qv::GsmRequest request = makeRequest(deviceId, portName);
    auto handler = deliverTo(request.loop, nullptr, listener, context);
    return qv::GsmBackend::current()->getDeviceInfo(request, std::move(handler)) ? 1 : 0;
}

std::int32_t startGetNetworkInfoEx(std::int32_t deviceId, const char* portName,
                                   GsmNetworkInfoListener listener, void* context) {
    if (portName == nullptr || *portName == '\0') {
        return 0;
    }
    qv::GsmRequest request = makeRequest(deviceId, portName);
    auto handler = deliverTo(request.loop, listener, nullptr, context);
    return qv::GsmBackend::current()->startGetNetworkInfo(request, std::move(handler)) ? 1 : 0;
}
