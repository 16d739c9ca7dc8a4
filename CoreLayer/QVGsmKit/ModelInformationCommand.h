// ModelInformationCommand (command 9): asks the modem for its marketing name, the maker's specific
// number (GT code) and its model name (AT+CGMM).
#pragma once

#include "CoreCommand.h"

class ModelInformationCommand : public CoreCommand {
  public:
    std::int32_t executeCommand(const std::string& portPath, std::int32_t deviceId,
                                const qv::Value& parameter = {}) override;
    qv::Value pmn() const override { return pmn_; }
    qv::Value manSpecificNumber() const override { return manSpecificNumber_; }
    qv::Value model() const override { return model_; }

  private:
    qv::Value pmn_;
    qv::Value manSpecificNumber_;
    qv::Value model_;
};
