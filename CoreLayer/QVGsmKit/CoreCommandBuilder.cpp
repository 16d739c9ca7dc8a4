#include "CoreCommandBuilder.h"

#include "DeviceIdentificationCommand.h"
#include "ModelInformationCommand.h"

std::shared_ptr<CoreCommand> CoreCommandBuilder::createCmd(std::int32_t command) const {
    switch (command) {
        case kDeviceIdentification:
            return std::make_shared<DeviceIdentificationCommand>();
        case kModelInformation:
            return std::make_shared<ModelInformationCommand>();
        default:
            return nullptr;
    }
}
