// qv::ScriptedGsmBackend: a modem backend that answers from a description instead of talking to
// modems (tests and `qvdevice simulate`). Each port path answers as its ScriptedModemPort says; a
// port that is not described answers every command and request with kGsmErrorPortUnavailable, a
// described port that leaves a command out answers it with kGsmErrorNoResponse.
//
// Time: a command blocks its caller for the port's latency by sleeping on the caller's run loop,
// and a request's answer comes `latency` seconds later through a timer on the requesting run loop,
// so in virtual time both cost nothing. Every command and request is recorded with its port and the
// answer it gets, and an observer may watch them as they are made. Safe from any thread.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "GsmBackend.h"
#include "ScriptedModemDescription.h"

namespace qv {

class ScriptedGsmBackend : public GsmBackend {
  public:
    struct Call {
        // "identify", "modelInfo", "groundInit", "deviceInfo" or "networkInfo".
        std::string operation;
        std::string portPath;
        std::int32_t deviceId = 0;
        std::string script;  // ground initialisation only
        // What the call answers: for a command its error in `code` and the answers in `data`
        // ({"deviceId"} or {"pmn", "manSpecificNumber", "model"}).
        GsmAnswer answer;
        double latency = 0.0;
    };

    explicit ScriptedGsmBackend(ScriptedModemDescription description = {});
    // nullptr, with the reason in `error`, for a bad description.
    static std::shared_ptr<ScriptedGsmBackend> fromDescription(const Value& description,
                                                               std::string* error);

    GsmDeviceIdentification identifyDevice(const std::string& portPath,
                                           std::int32_t deviceId) override;
    GsmModelInformation modelInformation(const std::string& portPath,
                                         std::int32_t deviceId) override;
    bool startGroundInit(const GsmRequest& request, const std::string& script,
                         GsmAnswerHandler answer) override;
    bool getDeviceInfo(const GsmRequest& request, GsmAnswerHandler answer) override;
    bool startGetNetworkInfo(const GsmRequest& request, GsmAnswerHandler answer) override;

    void setObserver(std::function<void(const Call&)> observer);
    std::vector<Call> calls() const;
    void clearCalls();

  private:
    // Records the call, tells the observer and answers the port's latency.
    double record(Call call);
    bool deliver(const GsmRequest& request, Call call, GsmAnswerHandler answer);

    ScriptedModemDescription description_;
    mutable std::mutex mutex_;
    std::map<std::string, std::size_t> networkInfoServed_;
    std::vector<Call> calls_;
    std::function<void(const Call&)> observer_;
};

}  // namespace qv
