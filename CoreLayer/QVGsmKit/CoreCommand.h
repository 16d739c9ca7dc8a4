// CoreCommand: one synchronous modem command of the GSM library, made by CoreCommandBuilder's
// createCmd. executeCommand runs it on one port through the current GsmBackend and blocks the
// calling thread until the answer is in; error() is 0 afterwards on success.
//
// Every command answers every accessor, as the library's objects did: the ones a command does not
// produce read 0 or nil. A command object runs on one thread at a time.
#pragma once

#include <cstdint>
#include <string>

#include "Foundation/Value.h"
#include "GsmResultCodes.h"

class CoreCommand {
  public:
    virtual ~CoreCommand() = default;

    // Runs the command on the modem at `portPath` ("/dev/cu.ttyUSB0") for the model `deviceId`
    // (-1 when unknown). `parameter` is nil for the commands the framework uses. Answers error().
    virtual std::int32_t executeCommand(const std::string& portPath, std::int32_t deviceId,
                                        const qv::Value& parameter = {}) = 0;
    // 0 after a successful execution; kGsmErrorNotExecuted before the first one.
    std::int32_t error() const { return error_; }

    // Command 3: the Quorvel ID the modem reports.
    virtual std::int32_t getDeviceId() const { return 0; }
    // Command 9: product marketing name, the maker's specific number (GT code), model name.
    virtual qv::Value pmn() const { return {}; }
    virtual qv::Value manSpecificNumber() const { return {}; }
    virtual qv::Value model() const { return {}; }

  protected:
    void setError(std::int32_t error) { error_ = error; }

  private:
    std::int32_t error_ = kGsmErrorNotExecuted;
};
