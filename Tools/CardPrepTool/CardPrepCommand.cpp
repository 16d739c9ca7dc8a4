#include "CardPrepCommand.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ostream>
#include <sstream>

#include "Foundation/BoundedFileReader.h"
#include "Foundation/Task.h"
#include "GzipTarReader.h"
#include "HelperCommandLine/HelperCommandLine.h"
#include "ShellWord.h"

namespace cardprep {

namespace {

// A configuration file is a few lines; anything larger is not one.
constexpr std::size_t kMaxConfigSize = 64 * 1024;

std::string hex4(std::uint32_t value) {
    char buffer[8];
    std::snprintf(buffer, sizeof buffer, "%04x", value & 0xFFFF);
    return buffer;
}

// A small number file of sysfs: "idVendor" (4 hex digits), "busnum" (3 decimal digits); nullopt
// for anything else.
std::optional<std::uint32_t> readSysfsNumber(const std::string& path, int base,
                                             std::size_t maxDigits) {
    std::optional<std::string> text =
        qv::readFileUpTo(path, 64, qv::FileKinds::RegularOnly, nullptr);
    if (!text) {
        return std::nullopt;
    }
    std::string digits = text->substr(0, text->find_first_of("\n "));
    const char* allowed = base == 16 ? "0123456789abcdefABCDEF" : "0123456789";
    if (digits.empty() || digits.size() > maxDigits ||
        digits.find_first_not_of(allowed) != std::string::npos) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(std::stoul(digits, nullptr, base));
}

std::optional<std::uint32_t> readHexFile(const std::string& path) {
    return readSysfsNumber(path, 16, 4);
}

std::optional<int> readDecimalFile(const std::string& path) {
    std::optional<std::uint32_t> number = readSysfsNumber(path, 10, 3);
    return number ? std::optional<int>(static_cast<int>(*number)) : std::nullopt;
}

// Only the settings lines of a configuration: comments and blank lines go, and nothing that is
// not KEY=VALUE is passed on.
std::string settingsOf(const std::string& config) {
    std::istringstream lines(config);
    std::string line;
    std::string settings;
    while (std::getline(lines, line)) {
        line.erase(0, line.find_first_not_of(" \t"));
        while (!line.empty() &&
               (line.back() == '\r' || line.back() == ' ' || line.back() == '\t')) {
            line.pop_back();
        }
        if (line.empty() || line.front() == '#' || line.find('=') == std::string::npos ||
            line.front() == '=') {
            continue;
        }
        settings += line + "\n";
    }
    return settings;
}

}  // namespace

const char* CardPrepCommand::usage() {
    return "usage: CardPrepTool [options] /pid=,HEX\n"
           "\n"
           "Switches the Huawei modem stick with product ID HEX (e.g. /pid=,1f15) out of its\n"
           "storage mode with usb_modeswitch, so that its modem ports appear. The stick's\n"
           "configuration comes from /etc/usb_modeswitch.d/12d1:HEX, then from\n"
           "usb-modeswitch-data's configPack.tar.gz, and otherwise the Huawei new-mode message\n"
           "is sent. Needs the Debian package usb-modeswitch (and usb-modeswitch-data for the\n"
           "known sticks) and the right to open the stick (root, or a udev rule).\n"
           "\n"
           "Normally the system switches such sticks itself as they are plugged in: the udev\n"
           "rule of usb-modeswitch-data (40-usb_modeswitch.rules, with a generic entry for\n"
           "Huawei sticks) runs usb_modeswitch as root. A stick that stays in storage mode\n"
           "means that rule is missing: install usb-modeswitch and usb-modeswitch-data, or\n"
           "run this tool as root.\n"
           "\n"
           "options:\n"
           "  --dry-run               print the usb_modeswitch command and run nothing\n"
           "  --usb-modeswitch PATH   the usb_modeswitch program (default "
           "/usr/sbin/usb_modeswitch)\n"
           "  --config-dir DIR        local configurations (default /etc/usb_modeswitch.d)\n"
           "  --config-pack FILE      the data package's pack\n"
           "                          (default /usr/share/usb_modeswitch/configPack.tar.gz)\n"
           "  --sysfs DIR             look for the stick under DIR instead of /sys\n"
           "  --help                  print this text\n"
           "\n"
           "Exits with 0 when usb_modeswitch switched the stick, 1 with one line saying why\n"
           "when it did not (no usb_modeswitch, no such stick, usb_modeswitch failed), 2 for a\n"
           "bad command line.\n";
}

std::optional<std::uint32_t> CardPrepCommand::productFromArgument(const std::string& argument) {
    const std::string prefix = "/pid=,";
    if (argument.rfind(prefix, 0) != 0) {
        return std::nullopt;
    }
    std::string digits = argument.substr(prefix.size());
    if (digits.empty() || digits.size() > 4 ||
        digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(std::stoul(digits, nullptr, 16));
}

std::optional<CardPrepOptions> CardPrepCommand::parse(const std::vector<std::string>& arguments,
                                                      std::string* error, bool* helpWanted) {
    CardPrepOptions options;
    bool haveProduct = false;
    *helpWanted = false;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        // Values follow as words of their own; "--sysfs=DIR" is no option of this program.
        auto value = [&](std::string* out) {
            return helpercli::takeOptionValue(arguments, &i, argument, out, error, false);
        };
        if (helpercli::isHelpOption(argument)) {
            *helpWanted = true;
            return std::nullopt;
        } else if (argument == "--dry-run") {
            options.dryRun = true;
        } else if (argument == "--usb-modeswitch") {
            if (!value(&options.usbModeswitchPath))
                return std::nullopt;
        } else if (argument == "--config-dir") {
            if (!value(&options.overrideDirectory))
                return std::nullopt;
        } else if (argument == "--config-pack") {
            if (!value(&options.configPack))
                return std::nullopt;
        } else if (argument == "--sysfs") {
            if (!value(&options.sysfsRoot))
                return std::nullopt;
        } else if (!haveProduct && argument.rfind("/pid=", 0) == 0) {
            std::optional<std::uint32_t> product = productFromArgument(argument);
            if (!product) {
                *error = "\"" + argument + "\" is not /pid=, and a product ID in hexadecimal";
                return std::nullopt;
            }
            options.productID = *product;
            haveProduct = true;
        } else {
            *error = "unexpected argument \"" + argument + "\"";
            return std::nullopt;
        }
    }
    if (!haveProduct) {
        *error = "usage: CardPrepTool [options] /pid=,HEX";
        return std::nullopt;
    }
    return options;
}

int CardPrepCommand::main(const std::vector<std::string>& arguments, std::ostream& out,
                          std::ostream& err) {
    return helpercli::runProgram<CardPrepCommand, CardPrepOptions>("CardPrepTool", arguments, out,
                                                                   err);
}

int CardPrepCommand::fail(const std::string& message) {
    return helpercli::failWithLine(err_, "CardPrepTool", message);
}

std::string CardPrepCommand::idName() const {
    return hex4(kHuaweiVendorID) + ":" + hex4(options_.productID);
}

std::vector<StickAddress> CardPrepCommand::attachedSticks() const {
    const std::string directory = options_.sysfsRoot + "/bus/usb/devices";
    std::vector<std::string> names;
    if (DIR* dir = opendir(directory.c_str())) {
        while (dirent* entry = readdir(dir)) {
            names.push_back(entry->d_name);
        }
        closedir(dir);
    }
    // readdir's order is the file system's: sort, so sticks are switched in the same order always.
    std::sort(names.begin(), names.end());
    std::vector<StickAddress> sticks;
    for (const std::string& name : names) {
        // Devices only ("1-2", "usb1"); interfaces carry a colon.
        if (name.empty() || name.front() == '.' || name.find(':') != std::string::npos) {
            continue;
        }
        const std::string base = directory + "/" + name + "/";
        if (readHexFile(base + "idVendor") == kHuaweiVendorID &&
            readHexFile(base + "idProduct") == options_.productID) {
            sticks.push_back({readDecimalFile(base + "busnum"), readDecimalFile(base + "devnum")});
        }
    }
    return sticks;
}

std::optional<std::string> CardPrepCommand::configuration(std::string* source,
                                                          std::string* error) const {
    const std::string local = options_.overrideDirectory + "/" + idName();
    std::string reason;
    if (access(local.c_str(), F_OK) == 0) {
        std::optional<std::string> text =
            qv::readFileUpTo(local, kMaxConfigSize, qv::FileKinds::RegularOnly, &reason);
        if (!text) {
            *error = local + ": " + reason;
            return std::nullopt;
        }
        *source = local;
        return settingsOf(*text);
    }
    if (access(options_.configPack.c_str(), F_OK) == 0) {
        std::optional<std::string> text =
            GzipTarReader::readMember(options_.configPack, idName(), &reason);
        if (text) {
            *source = options_.configPack + " (" + idName() + ")";
            return settingsOf(*text);
        }
        if (!reason.empty()) {
            *error = options_.configPack + ": " + reason;
            return std::nullopt;
        }
    }
    source->clear();
    return std::string();
}

std::vector<std::string> CardPrepCommand::modeswitchArguments(const std::string& config,
                                                              const StickAddress& address) const {
    std::vector<std::string> arguments = {"-v", "0x" + hex4(kHuaweiVendorID), "-p",
                                          "0x" + hex4(options_.productID)};
    if (address.bus && address.device) {
        arguments.insert(arguments.end(), {"-b", std::to_string(*address.bus), "-g",
                                           std::to_string(*address.device)});
    }
    if (config.empty()) {
        arguments.push_back("-J");
    } else {
        // The settings as a long configuration: no file of ours to write, nothing a shell sees.
        arguments.push_back("-f");
        arguments.push_back(config);
    }
    return arguments;
}

int CardPrepCommand::run() {
    std::string source;
    std::string error;
    std::optional<std::string> config = configuration(&source, &error);
    if (!config) {
        return fail("cannot read the configuration for " + idName() + ": " + error);
    }
    if (options_.dryRun) {
        out_ << "configuration: " << (source.empty() ? "none, Huawei new-mode message" : source)
             << "\n";
        // The configuration comes from a file: shown quoted, it is one word and cannot reach
        // the terminal as a control.
        out_ << shellQuoted(options_.usbModeswitchPath);
        for (const std::string& argument : modeswitchArguments(*config)) {
            out_ << " " << shellQuoted(argument);
        }
        out_ << "\n";
        return 0;
    }
    if (access(options_.usbModeswitchPath.c_str(), X_OK) != 0) {
        return fail(options_.usbModeswitchPath +
                    " is missing: install the Debian packages usb-modeswitch and "
                    "usb-modeswitch-data (whose udev rule then switches such sticks as they "
                    "are plugged in)");
    }
    const std::vector<StickAddress> sticks = attachedSticks();
    if (sticks.empty()) {
        return fail("no Huawei stick " + idName() + " is attached");
    }
    // Every stick is tried even when one fails: the others are not left in storage mode.
    std::string failures;
    for (const StickAddress& stick : sticks) {
        const std::string which = stick.bus && stick.device
                                      ? idName() + " on bus " + std::to_string(*stick.bus) +
                                            " device " + std::to_string(*stick.device)
                                      : idName();
        qv::TaskResult result = qv::TaskLauncher::shared().run(options_.usbModeswitchPath,
                                                               modeswitchArguments(*config, stick));
        if (!result.launched) {
            return fail("cannot start " + options_.usbModeswitchPath + ": " + result.error);
        }
        out_ << result.output;
        if (result.exitStatus != 0) {
            if (!failures.empty()) {
                failures += "; ";
            }
            failures += which;
            failures += " (exit status " + std::to_string(result.exitStatus) + ")";
        } else {
            out_ << "switched " << which << "\n";
        }
    }
    if (!failures.empty()) {
        // usb_modeswitch needs to write the stick's USB node, which only root may by default.
        return fail("usb_modeswitch could not switch " + failures +
                    (geteuid() == 0 ? std::string()
                                    : std::string(". Not running as root: the system normally "
                                                  "switches the stick itself through the udev "
                                                  "rule of usb-modeswitch-data; install "
                                                  "usb-modeswitch and usb-modeswitch-data, or "
                                                  "run CardPrepTool as root")));
    }
    return 0;
}

}  // namespace cardprep
