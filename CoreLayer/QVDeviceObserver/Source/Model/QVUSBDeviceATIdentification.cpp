// QVUSBDevice's identification through the modem library: which model a unit is, and its names.
#include <unicode/unistr.h>

#include <array>
#include <functional>
#include <memory>

#include "Events/QVIODevice.h"
#include "Foundation/Logging.h"
#include "Model/QVUSBDevice.h"
#include "QVGsmKit/CoreCommandBuilder.h"

namespace {

// Ports that carry diagnostics, GPS or the WWAN control channel never answer AT commands; asking
// them only costs the library's time-outs. Ports the platform marked as such (udev rules) are
// skipped the same way, whatever their names.
bool isProbeablePort(const std::string& path) {
    static const std::array<icu::UnicodeString, 3> kSkipWords = {
        icu::UnicodeString(u"diag"), icu::UnicodeString(u"gps"), icu::UnicodeString(u"wwancntl")};
    icu::UnicodeString folded = icu::UnicodeString::fromUTF8(path);
    folded.foldCase();
    for (const auto& word : kSkipWords) {
        if (folded.indexOf(word) >= 0) {
            return false;
        }
    }
    return true;
}

// Runs command `number` on each probeable port in turn with a fresh command object, until one
// succeeds; answers that command, or nullptr when every port failed.
std::shared_ptr<CoreCommand> firstSuccessfulCommand(const QVIODevice& ioDevice, std::int32_t number,
                                                    std::int32_t quorvelID) {
    for (const auto& path : ioDevice.portPaths()) {
        if (!isProbeablePort(path) || !ioDevice.isPortForATCommands(path)) {
            continue;
        }
        const CoreCommandBuilder builder;
        auto command = builder.createCmd(number);
        if (command && command->executeCommand(path, quorvelID) == 0 && command->error() == 0) {
            return command;
        }
    }
    return nullptr;
}

std::optional<std::string> stringOrNil(const qv::Value& value) {
    const std::string* text = value.asString();
    return text != nullptr ? std::optional<std::string>(*text) : std::nullopt;
}

}  // namespace

bool QVUSBDevice::couldIdentifyWithATCommandsFromIODevice(const QVIODevice& ioDevice) {
    auto command = firstSuccessfulCommand(ioDevice, CoreCommandBuilder::kDeviceIdentification, -1);
    if (!command) {
        qv::logRecognition("Serial Recognition died");
        return false;
    }
    setQuorvelID(command->getDeviceId());
    return true;
}

qv::Value QVUSBDevice::getDeviceDetails(const QVIODevice& ioDevice) const {
    auto command =
        firstSuccessfulCommand(ioDevice, CoreCommandBuilder::kModelInformation, quorvelID());
    if (!command) {
        qv::logRecognition("Device info died");
        return qv::Value();
    }
    const qv::Value gtCode = command->manSpecificNumber();
    const qv::Value marketingName = command->pmn();
    qv::logRecognition("device INFO: %@ %@", marketingName, gtCode);
    // Built as the original built it, from a list that a nil ends: without a GT code nothing
    // follows it.
    qv::Dictionary details;
    if (!gtCode.isNil()) {
        details.set("GTCode", gtCode);
        if (!marketingName.isNil()) {
            details.set("ProductMarketingName", marketingName);
        }
    }
    return qv::Value(std::move(details));
}

std::optional<std::string> QVUSBDevice::fetchDeviceForDeviceWithQVID(std::int32_t quorvelID,
                                                                     const std::string& path) {
    const CoreCommandBuilder builder;
    auto command = builder.createCmd(CoreCommandBuilder::kModelInformation);
    if (!command || command->executeCommand(path, quorvelID) != 0 || command->error() != 0) {
        return std::nullopt;
    }
    return stringOrNil(command->model());
}

std::optional<std::string> QVUSBDevice::fetchDeviceNameUsingCGMM(
    const std::optional<std::string>& path) const {
    if (!path) {
        return std::nullopt;
    }
    return fetchDeviceForDeviceWithQVID(quorvelID(), *path);
}

std::optional<std::string> QVUSBDevice::fetchDeviceNameUsingCGMMFromSuitablePort() const {
    auto port = portWithCapability(kQVCapabilityDeviceInfo);
    return port ? fetchDeviceNameUsingCGMM(port->path()) : std::nullopt;
}
