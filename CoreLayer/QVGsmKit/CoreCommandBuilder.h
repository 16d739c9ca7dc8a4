// CoreCommandBuilder: makes the GSM library's synchronous commands by number.
#pragma once

#include <cstdint>
#include <memory>

#include "CoreCommand.h"

class CoreCommandBuilder {
  public:
    static constexpr std::int32_t kDeviceIdentification = 3;
    static constexpr std::int32_t kModelInformation = 9;

    // A new command object, or nullptr for a number the library does not know.
    std::shared_ptr<CoreCommand> createCmd(std::int32_t command) const;
};
