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
// backend answers from. The handler holds the loop weakly: a backend may park it in a timer on
// that very loop, and a strong hold would keep a finished loop alive forever. An answer that
// arrives after its loop has gone has nobody left to hear it and is dropped.
qv::GsmAnswerHandler deliverTo(const std::shared_ptr<qv::RunLoop>& loop,
                               GsmNetworkInfoListener listener, GsmListener plainListener,
                               void* context) {
    std::weak_ptr<qv::RunLoop> weakLoop = loop;
    return [weakLoop, listener, plainListener, context](qv::GsmAnswer answer) {
        auto target = weakLoop.lock();
        if (!target) {
            return;
        }
        target->post([listener, plainListener, context, answer = std::move(answer)]() mutable {
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
