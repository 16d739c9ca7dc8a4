// CardPrepTool: switches a Huawei modem stick out of its storage mode ("quick start": it shows a
// CD with the Windows driver and no modem) so that its serial ports appear. The serial port
// enabler starts it with one argument, "/pid=,HEX", the stick's product ID in hexadecimal.
//
// The switching itself is usb_modeswitch's (Debian's usb-modeswitch). The configuration for the
// stick comes, in this order, from /etc/usb_modeswitch.d/12d1:HEX (the administrator's own),
// from usb-modeswitch-data's pack (/usr/share/usb_modeswitch/configPack.tar.gz, member
// "12d1:HEX"), and otherwise the Huawei new-mode message (-J) that every newer Huawei stick
// understands. usb_modeswitch is started with an argument list, never through a shell. Every
// attached stick with that product ID is switched, each by its bus and device number, so that two
// identical sticks do not leave the second one in storage mode.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "QVDeviceKnowledge/QVDeviceVendors.h"

namespace cardprep {

// Where an attached stick sits on the bus (sysfs "busnum" and "devnum"); unknown when sysfs does
// not say, and then usb_modeswitch picks the stick by its IDs alone.
struct StickAddress {
    std::optional<int> bus;
    std::optional<int> device;
};

struct CardPrepOptions {
    std::uint32_t productID = 0;
    bool dryRun = false;  // print the usb_modeswitch command line and run nothing
    std::string usbModeswitchPath = "/usr/sbin/usb_modeswitch";
    std::string overrideDirectory = "/etc/usb_modeswitch.d";
    std::string configPack = "/usr/share/usb_modeswitch/configPack.tar.gz";
    std::string sysfsRoot = "/sys";
};

class CardPrepCommand {
  public:
    CardPrepCommand(CardPrepOptions options, std::ostream& out, std::ostream& err)
        : options_(std::move(options)), out_(out), err_(err) {}

    // The whole program: `arguments` without the program name; answers the exit status (0
    // switched, 1 not switched with one line on `err` saying why, 2 a bad command line).
    static int main(const std::vector<std::string>& arguments, std::ostream& out,
                    std::ostream& err);
    static std::optional<CardPrepOptions> parse(const std::vector<std::string>& arguments,
                                                std::string* error, bool* helpWanted);
    static const char* usage();

    // The product ID of "/pid=,HEX" (1 to 4 hexadecimal digits), or nullopt.
    static std::optional<std::uint32_t> productFromArgument(const std::string& argument);

    int run();

    // The configuration text for the stick and where it came from ("" when there is none: the
    // new-mode message is used). `error` is set when a configuration exists but cannot be read.
    std::optional<std::string> configuration(std::string* source, std::string* error) const;
    // usb_modeswitch's arguments (without the program) for the configuration, or for the
    // new-mode message when `config` is empty; for the stick at `address` when it is known.
    std::vector<std::string> modeswitchArguments(const std::string& config,
                                                 const StickAddress& address = {}) const;
    // The attached USB devices 12d1:PRODUCT, by sysfs, in bus order.
    std::vector<StickAddress> attachedSticks() const;

  private:
    int fail(const std::string& message);
    std::string idName() const;

    CardPrepOptions options_;
    std::ostream& out_;
    std::ostream& err_;
};

}  // namespace cardprep
