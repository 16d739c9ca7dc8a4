// DeviceIdentificationCommand (command 3): asks the modem which model it is.
#pragma once

#include "CoreCommand.h"

class DeviceIdentificationCommand : public CoreCommand {
  public:
    std::int32_t executeCommand(const std::string& portPath, std::int32_t deviceId,
                                const qv::Value& parameter = {}) override;
    std::int32_t getDeviceId() const override { return deviceId_; }

  private:
    std::int32_t deviceId_ = 0;
};
