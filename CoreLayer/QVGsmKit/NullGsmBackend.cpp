#include "NullGsmBackend.h"

#include <utility>

#include "GsmResultCodes.h"

namespace qv {

namespace {

bool answerUnavailable(const GsmRequest& request, GsmAnswerHandler answer) {
    if (!request.loop || !answer) {
        return false;
    }
    // Never from inside the start call: the answer goes through the loop.
    request.loop->post([answer = std::move(answer)]() {
        GsmAnswer unavailable;
        unavailable.code = kGsmErrorPortUnavailable;
        answer(std::move(unavailable));
    });
    return true;
}

}  // namespace

GsmDeviceIdentification NullGsmBackend::identifyDevice(const std::string&, std::int32_t) {
    return GsmDeviceIdentification{kGsmErrorPortUnavailable, 0};
}

GsmModelInformation NullGsmBackend::modelInformation(const std::string&, std::int32_t) {
    GsmModelInformation information;
    information.error = kGsmErrorPortUnavailable;
    return information;
}

bool NullGsmBackend::startGroundInit(const GsmRequest& request, const std::string&,
                                     GsmAnswerHandler answer) {
    return answerUnavailable(request, std::move(answer));
}

bool NullGsmBackend::getDeviceInfo(const GsmRequest& request, GsmAnswerHandler answer) {
    return answerUnavailable(request, std::move(answer));
}

bool NullGsmBackend::startGetNetworkInfo(const GsmRequest& request, GsmAnswerHandler answer) {
    return answerUnavailable(request, std::move(answer));
}

}  // namespace qv
