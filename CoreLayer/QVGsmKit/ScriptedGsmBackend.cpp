#include "ScriptedGsmBackend.h"

#include <algorithm>
#include <utility>

#include "GsmResultCodes.h"

namespace qv {

namespace {

GsmAnswer failure(std::int32_t code) {
    GsmAnswer answer;
    answer.code = code;
    return answer;
}

}  // namespace

ScriptedGsmBackend::ScriptedGsmBackend(ScriptedModemDescription description)
    : description_(std::move(description)) {}

std::shared_ptr<ScriptedGsmBackend> ScriptedGsmBackend::fromDescription(const Value& description,
                                                                        std::string* error) {
    std::optional<ScriptedModemDescription> parsed =
        ScriptedModemDescription::parse(description, error);
    if (!parsed) {
        return nullptr;
    }
    return std::make_shared<ScriptedGsmBackend>(std::move(*parsed));
}

double ScriptedGsmBackend::record(Call call) {
    const ScriptedModemPort* port = description_.port(call.portPath);
    call.latency = port != nullptr ? port->latency : 0.0;
    std::function<void(const Call&)> observer;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        calls_.push_back(call);
        observer = observer_;
    }
    if (observer) {
        observer(call);
    }
    return call.latency;
}

GsmDeviceIdentification ScriptedGsmBackend::identifyDevice(const std::string& portPath,
                                                           std::int32_t deviceId) {
    const ScriptedModemPort* port = description_.port(portPath);
    GsmDeviceIdentification result{kGsmErrorPortUnavailable, 0};
    if (port != nullptr) {
        result = port->identify.value_or(GsmDeviceIdentification{kGsmErrorNoResponse, 0});
    }
    Call call{"identify", portPath, deviceId, {}, failure(result.error), 0.0};
    if (result.error == 0) {
        call.answer.data.set("deviceId", result.deviceId);
    }
    RunLoop::current().sleep(record(std::move(call)));
    return result;
}

GsmModelInformation ScriptedGsmBackend::modelInformation(const std::string& portPath,
                                                         std::int32_t deviceId) {
    const ScriptedModemPort* port = description_.port(portPath);
    GsmModelInformation result;
    result.error = kGsmErrorPortUnavailable;
    if (port != nullptr) {
        if (port->modelInfo) {
            result = *port->modelInfo;
        } else {
            result.error = kGsmErrorNoResponse;
        }
    }
    Call call{"modelInfo", portPath, deviceId, {}, failure(result.error), 0.0};
    if (result.error == 0) {
        call.answer.data = Value(Dictionary{});
        for (auto [key, value] : {std::pair{"pmn", &result.pmn},
                                  std::pair{"manSpecificNumber", &result.manSpecificNumber},
                                  std::pair{"model", &result.model}}) {
            if (!value->isNil()) {
                call.answer.data.set(key, *value);
            }
        }
    }
    RunLoop::current().sleep(record(std::move(call)));
    return result;
}

bool ScriptedGsmBackend::deliver(const GsmRequest& request, Call call, GsmAnswerHandler answer) {
    if (!request.loop) {
        return false;
    }
    GsmAnswer scripted = call.answer;
    double latency = record(std::move(call));
    if (answer) {
        request.loop->performAfterDelay(
            latency, [answer = std::move(answer), scripted]() { answer(scripted); });
    }
    return true;
}

bool ScriptedGsmBackend::startGroundInit(const GsmRequest& request, const std::string& script,
                                         GsmAnswerHandler answer) {
    const ScriptedModemPort* port = description_.port(request.portPath);
    GsmAnswer result = failure(kGsmErrorPortUnavailable);
    if (port != nullptr) {
        result = failure(port->groundInit.value_or(kGsmErrorNoResponse));
    }
    return deliver(request, Call{"groundInit", request.portPath, request.deviceId, script, result},
                   std::move(answer));
}

bool ScriptedGsmBackend::getDeviceInfo(const GsmRequest& request, GsmAnswerHandler answer) {
    const ScriptedModemPort* port = description_.port(request.portPath);
    GsmAnswer result = failure(kGsmErrorPortUnavailable);
    if (port != nullptr) {
        result = port->deviceInfo.value_or(failure(kGsmErrorNoResponse));
    }
    return deliver(request, Call{"deviceInfo", request.portPath, request.deviceId, {}, result},
                   std::move(answer));
}

bool ScriptedGsmBackend::startGetNetworkInfo(const GsmRequest& request, GsmAnswerHandler answer) {
    const ScriptedModemPort* port = description_.port(request.portPath);
    GsmAnswer result = failure(kGsmErrorPortUnavailable);
    if (port != nullptr) {
        if (port->networkInfo.empty()) {
            result = failure(kGsmErrorNoResponse);
        } else {
            std::lock_guard<std::mutex> lock(mutex_);
            std::size_t& served = networkInfoServed_[request.portPath];
            result = port->networkInfo[std::min(served, port->networkInfo.size() - 1)];
            ++served;
        }
    }
    return deliver(request, Call{"networkInfo", request.portPath, request.deviceId, {}, result},
                   std::move(answer));
}

void ScriptedGsmBackend::setObserver(std::function<void(const Call&)> observer) {
    std::lock_guard<std::mutex> lock(mutex_);
    observer_ = std::move(observer);
}

std::vector<ScriptedGsmBackend::Call> ScriptedGsmBackend::calls() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
}

void ScriptedGsmBackend::clearCalls() {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.clear();
}

}  // namespace qv
