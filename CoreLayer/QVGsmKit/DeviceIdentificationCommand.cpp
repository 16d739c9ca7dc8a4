#include "DeviceIdentificationCommand.h"

#include "GsmBackend.h"

std::int32_t DeviceIdentificationCommand::executeCommand(const std::string& portPath,
                                                         std::int32_t deviceId, const qv::Value&) {
    qv::GsmDeviceIdentification answer =
        qv::GsmBackend::current()->identifyDevice(portPath, deviceId);
    deviceId_ = answer.error == 0 ? answer.deviceId : 0;
    setError(answer.error);
    return error();
}
