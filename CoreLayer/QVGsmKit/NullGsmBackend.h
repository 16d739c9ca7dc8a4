// qv::NullGsmBackend: the backend that reaches no modem. Every command fails with
// kGsmErrorPortUnavailable and every request is started and answered with that code at once (on
// the requesting run loop's next turn), as a library that cannot open any port would answer.
#pragma once

#include "GsmBackend.h"

namespace qv {

class NullGsmBackend : public GsmBackend {
  public:
    GsmDeviceIdentification identifyDevice(const std::string& portPath,
                                           std::int32_t deviceId) override;
    GsmModelInformation modelInformation(const std::string& portPath,
                                         std::int32_t deviceId) override;
    bool startGroundInit(const GsmRequest& request, const std::string& script,
                         GsmAnswerHandler answer) override;
    bool getDeviceInfo(const GsmRequest& request, GsmAnswerHandler answer) override;
    bool startGetNetworkInfo(const GsmRequest& request, GsmAnswerHandler answer) override;
};

}  // namespace qv
