#include "ModelInformationCommand.h"

#include <utility>

#include "GsmBackend.h"

std::int32_t ModelInformationCommand::executeCommand(const std::string& portPath,
                                                     std::int32_t deviceId, const qv::Value&) {
    qv::GsmModelInformation answer =
        qv::GsmBackend::current()->modelInformation(portPath, deviceId);
    bool ok = answer.error == 0;
    // Only strings pass: a backend's odd answer reads as nothing said.
    pmn_ = ok && answer.pmn.isString() ? std::move(answer.pmn) : qv::Value();
    manSpecificNumber_ = ok && answer.manSpecificNumber.isString()
                             ? std::move(answer.manSpecificNumber)
                             : qv::Value();
    model_ = ok && answer.model.isString() ? std::move(answer.model) : qv::Value();
    setError(answer.error);
    return error();
}
