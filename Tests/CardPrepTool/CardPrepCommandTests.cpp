// CardPrepTool with a recording task runner: which usb_modeswitch command a stick gets, from the
// local configurations, the data package's pack or the Huawei new-mode message, and what it says
// when usb_modeswitch or the stick is missing.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <tuple>

#include "CardPrepCommand.h"
#include "Foundation/Task.h"
#include "GzipTarReader.h"

namespace {

namespace fs = std::filesystem;
using cardprep::CardPrepCommand;
using cardprep::CardPrepOptions;
using cardprep::GzipTarReader;

const std::string kDataPack = "/usr/share/usb_modeswitch/configPack.tar.gz";

void writeFile(const std::string& path, const std::string& text) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path) << text;
}

class CardPrepTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/qv-cardprep-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        root_ = pattern;
        tool_ = root_ + "/usb_modeswitch";
        writeFile(tool_, "#!/bin/sh\n");
        chmod(tool_.c_str(), 0755);
        qv::TaskLauncher::setShared(launcher_);
    }
    void TearDown() override {
        qv::TaskLauncher::setShared(nullptr);
        std::error_code ignored;
        fs::remove_all(root_, ignored);
    }

    void plugStick(const std::string& vendor, const std::string& product) {
        writeFile(root_ + "/sys/bus/usb/devices/1-2/idVendor", vendor + "\n");
        writeFile(root_ + "/sys/bus/usb/devices/1-2/idProduct", product + "\n");
        // An interface of it carries no IDs and is passed over.
        fs::create_directories(root_ + "/sys/bus/usb/devices/1-2:1.0");
    }
    CardPrepOptions options(std::uint32_t product, const std::string& pack = "/nonexistent") {
        CardPrepOptions options;
        options.productID = product;
        options.usbModeswitchPath = tool_;
        options.overrideDirectory = root_ + "/etc";
        options.configPack = pack;
        options.sysfsRoot = root_ + "/sys";
        return options;
    }
    int run(CardPrepOptions options) {
        out_.str("");
        err_.str("");
        return CardPrepCommand(std::move(options), out_, err_).run();
    }
    std::vector<std::string> lastArgv() const {
        return launcher_->records().empty() ? std::vector<std::string>{}
                                            : launcher_->records().back().argv;
    }

    std::string root_;
    std::string tool_;
    std::ostringstream out_;
    std::ostringstream err_;
    std::shared_ptr<qv::RecordingTaskLauncher> launcher_ =
        std::make_shared<qv::RecordingTaskLauncher>();
};

TEST(CardPrepArgument, OnlyTheEnablersFormWithOneToFourHexDigits) {
    EXPECT_EQ(CardPrepCommand::productFromArgument("/pid=,1f15"), 0x1F15u);
    EXPECT_EQ(CardPrepCommand::productFromArgument("/pid=,AB"), 0xABu);
    for (const char* bad : {"/pid=,", "/pid=1f15", "/pid=,12345", "/pid=,1g", "/pid=,-1",
                            "pid=,1f15", "/pid=,1f15 "}) {
        EXPECT_FALSE(CardPrepCommand::productFromArgument(bad)) << bad;
    }
    std::ostringstream out;
    std::ostringstream err;
    EXPECT_EQ(CardPrepCommand::main({}, out, err), 2);
    EXPECT_EQ(CardPrepCommand::main({"/pid=,xyz"}, out, err), 2);
    EXPECT_EQ(CardPrepCommand::main({"/pid=,1f15", "/pid=,1f16"}, out, err), 2);
    EXPECT_EQ(CardPrepCommand::main({"--help"}, out, err), 0);
    EXPECT_NE(out.str().find("usb_modeswitch"), std::string::npos);
}

TEST_F(CardPrepTest, AStickOfTheDataPackageGetsItsConfigurationAsALongConfig) {
    if (access(kDataPack.c_str(), R_OK) != 0) {
        GTEST_SKIP() << "needs usb-modeswitch-data";
    }
    plugStick("12d1", "1f15");
    EXPECT_EQ(run(options(0x1F15, kDataPack)), 0) << err_.str();
    ASSERT_EQ(launcher_->records().size(), 1u);
    EXPECT_TRUE(launcher_->records()[0].waited);
    // Vodafone K4305 in the data package: the new-mode message, two target products.
    EXPECT_EQ(lastArgv(),
              (std::vector<std::string>{tool_, "-v", "0x12d1", "-p", "0x1f15", "-f",
                                        "TargetVendor=0x12d1\nTargetProductList=\"1400,14f7\"\n"
                                        "HuaweiNewMode=1\n"}));
    EXPECT_NE(out_.str().find("switched 12d1:1f15"), std::string::npos);
}

TEST_F(CardPrepTest, ALocalConfigurationComesFirstAndWithoutAnyTheNewModeMessageIsSent) {
    plugStick("12d1", "1f16");
    writeFile(root_ + "/etc/12d1:1f16",
              "# local\n\n  HuaweiAltMode=1  \r\nnot a setting\n=odd\nTargetClass=0xff\n");
    EXPECT_EQ(run(options(0x1F16, kDataPack)), 0) << err_.str();
    EXPECT_EQ(lastArgv(), (std::vector<std::string>{tool_, "-v", "0x12d1", "-p", "0x1f16", "-f",
                                                    "HuaweiAltMode=1\nTargetClass=0xff\n"}));
    fs::remove(root_ + "/etc/12d1:1f16");
    EXPECT_EQ(run(options(0x1F16)), 0) << err_.str();
    EXPECT_EQ(lastArgv(), (std::vector<std::string>{tool_, "-v", "0x12d1", "-p", "0x1f16", "-J"}));

    // The dry run shows the same command and starts nothing.
    launcher_->clear();
    CardPrepOptions dry = options(0x1F16);
    dry.dryRun = true;
    EXPECT_EQ(run(dry), 0);
    EXPECT_TRUE(launcher_->records().empty());
    EXPECT_EQ(out_.str(), "configuration: none, Huawei new-mode message\n" + tool_ +
                              " -v 0x12d1 -p 0x1f16 -J\n");
}

// A configuration file is outside input: its settings, shown in the dry run, must come out as one
// shell word each, exactly as usb_modeswitch would get them, and never as terminal controls.
TEST_F(CardPrepTest, TheDryRunQuotesEveryWordForTheShell) {
    const std::string hostile =
        "a'b \"$(touch x)\" `id`;\x1b]0;title\x07 \xc2\x9b"
        "2J\x7f\\";
    writeFile(root_ + "/etc/12d1:1f17", "TargetVendor=0x12d1\nMessageContent=" + hostile + "\n");
    CardPrepOptions dry = options(0x1F17);
    dry.dryRun = true;
    ASSERT_EQ(run(dry), 0) << err_.str();
    const std::string out = out_.str();
    for (char c : out) {
        const auto byte = static_cast<unsigned char>(c);
        EXPECT_TRUE(c == '\n' || (byte >= 0x20 && byte < 0x7F)) << "byte " << int(byte);
    }
    const std::string command = out.substr(out.find('\n') + 1);
    EXPECT_EQ(command.rfind(tool_ + " -v 0x12d1 -p 0x1f17 -f $'TargetVendor=0x12d1\\n", 0), 0u)
        << command;

    // A shell given the printed words gets back the very arguments the tool would run.
    if (access("/bin/bash", X_OK) != 0) {
        GTEST_SKIP() << "needs bash to read the $'...' form";
    }
    const std::string words = command.substr(tool_.size(), command.size() - tool_.size() - 1);
    qv::TaskResult shell =
        qv::PosixTaskLauncher().run("/bin/bash", {"-c", "printf '%s\\0'" + words});
    ASSERT_EQ(shell.exitStatus, 0) << shell.error;
    std::vector<std::string> parsed;
    for (std::size_t start = 0; start < shell.output.size();) {
        const std::size_t end = shell.output.find('\0', start);
        parsed.push_back(shell.output.substr(start, end - start));
        start = end + 1;
    }
    EXPECT_EQ(parsed,
              (std::vector<std::string>{"-v", "0x12d1", "-p", "0x1f17", "-f",
                                        "TargetVendor=0x12d1\nMessageContent=" + hostile + "\n"}));
    EXPECT_FALSE(fs::exists(root_ + "/x")) << "nothing in the words ran";
    EXPECT_FALSE(fs::exists("x"));
}

TEST_F(CardPrepTest, SaysClearlyWhenTheToolTheStickOrTheSwitchIsMissing) {
    CardPrepOptions noTool = options(0x1F15);
    noTool.usbModeswitchPath = root_ + "/not-installed";
    EXPECT_EQ(run(noTool), 1);
    EXPECT_NE(err_.str().find("install the Debian packages usb-modeswitch"), std::string::npos)
        << err_.str();

    plugStick("12d1", "1f17");  // another stick
    EXPECT_EQ(run(options(0x1F15)), 1);
    EXPECT_EQ(err_.str(), "CardPrepTool: no Huawei stick 12d1:1f15 is attached\n");
    plugStick("19d2", "1f15");  // same product ID, another maker
    EXPECT_EQ(run(options(0x1F15)), 1);
    EXPECT_TRUE(launcher_->records().empty());

    plugStick("12d1", "1f15");
    qv::TaskResult refused;
    refused.launched = true;
    refused.exitStatus = 1;
    refused.output = "No devices in default mode found.\n";
    launcher_->setResult(tool_, refused);
    EXPECT_EQ(run(options(0x1F15)), 1);
    EXPECT_EQ(err_.str(),
              "CardPrepTool: usb_modeswitch could not switch 12d1:1f15 (exit status 1)\n");
    EXPECT_EQ(out_.str(), refused.output);

    // A local configuration that cannot be read is said, not passed over.
    fs::create_directories(root_ + "/etc/12d1:1f15");
    launcher_->clear();
    EXPECT_EQ(run(options(0x1F15)), 1);
    EXPECT_NE(err_.str().find("cannot read the configuration for 12d1:1f15"), std::string::npos);
    EXPECT_TRUE(launcher_->records().empty());
}

TEST_F(CardPrepTest, PackMembersAreFoundAndDamagedPacksRefused) {
    std::string tar;
    for (const char* directory : {"/usr/bin", "/bin"}) {
        if (access((std::string(directory) + "/tar").c_str(), X_OK) == 0) {
            tar = std::string(directory) + "/tar";
        }
    }
    if (tar.empty()) {
        GTEST_SKIP() << "needs tar to make a pack";
    }
    writeFile(root_ + "/pack/12d1:1f01", "# E353\nHuaweiNewMode=1\n");
    writeFile(root_ + "/pack/12d1:1f15", "# K4305\nTargetClass=0xff\n");
    qv::TaskResult made = qv::PosixTaskLauncher().run(
        tar, {"-czf", root_ + "/pack.tar.gz", "-C", root_ + "/pack", "12d1:1f01", "12d1:1f15"});
    ASSERT_TRUE(made.launched && made.exitStatus == 0) << made.error;

    std::string error;
    EXPECT_EQ(GzipTarReader::readMember(root_ + "/pack.tar.gz", "12d1:1f15", &error),
              std::optional<std::string>("# K4305\nTargetClass=0xff\n"));
    EXPECT_FALSE(GzipTarReader::readMember(root_ + "/pack.tar.gz", "12d1:1f16", &error));
    EXPECT_EQ(error, "");  // absent, not damaged

    writeFile(root_ + "/broken.tar.gz", "this is not gzip");
    EXPECT_FALSE(GzipTarReader::readMember(root_ + "/broken.tar.gz", "12d1:1f15", &error));
    EXPECT_NE(error, "");
    // Cut short in the middle of the compressed stream.
    std::ifstream in(root_ + "/pack.tar.gz", std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_FALSE(GzipTarReader::findMember(bytes.substr(0, bytes.size() / 2), "12d1:1f15", &error));
    EXPECT_NE(error, "");

    plugStick("12d1", "1f15");
    EXPECT_EQ(run(options(0x1F15, root_ + "/broken.tar.gz")), 1);
    EXPECT_NE(err_.str().find("broken.tar.gz"), std::string::npos) << err_.str();
}

// Two identical sticks: each is switched by its own bus and device number, and one that fails
// does not keep the other in storage mode.
TEST_F(CardPrepTest, EveryAttachedStickIsSwitchedByItsBusAddress) {
    for (const auto& [port, bus, device] :
         {std::tuple{"3-1", "3", "7"}, std::tuple{"1-4", "1", "12"}}) {
        const std::string base = root_ + "/sys/bus/usb/devices/" + std::string(port) + "/";
        writeFile(base + "idVendor", "12d1\n");
        writeFile(base + "idProduct", "1f16\n");
        writeFile(base + "busnum", std::string(bus) + "\n");
        writeFile(base + "devnum", std::string(device) + "\n");
    }
    EXPECT_EQ(run(options(0x1F16)), 0) << err_.str();
    ASSERT_EQ(launcher_->records().size(), 2u);
    EXPECT_EQ(launcher_->records()[0].argv,
              (std::vector<std::string>{tool_, "-v", "0x12d1", "-p", "0x1f16", "-b", "1", "-g",
                                        "12", "-J"}));
    EXPECT_EQ(launcher_->records()[1].argv,
              (std::vector<std::string>{tool_, "-v", "0x12d1", "-p", "0x1f16", "-b", "3", "-g", "7",
                                        "-J"}));
    EXPECT_NE(out_.str().find("switched 12d1:1f16 on bus 3 device 7"), std::string::npos);

    qv::TaskResult refused;
    refused.launched = true;
    refused.exitStatus = 1;
    launcher_->setResult(tool_, refused);
    launcher_->clear();
    EXPECT_EQ(run(options(0x1F16)), 1);
    EXPECT_EQ(launcher_->records().size(), 2u);
    EXPECT_EQ(err_.str(),
              "CardPrepTool: usb_modeswitch could not switch 12d1:1f16 on bus 1 device 12 (exit "
              "status 1); 12d1:1f16 on bus 3 device 7 (exit status 1)\n");

    // A bus number sysfs does not give as a number leaves the choice to usb_modeswitch.
    writeFile(root_ + "/sys/bus/usb/devices/1-4/busnum", "-1\n");
    qv::TaskResult switched;
    switched.launched = true;
    switched.exitStatus = 0;
    launcher_->setResult(tool_, switched);
    launcher_->clear();
    EXPECT_EQ(run(options(0x1F16)), 0) << err_.str();
    ASSERT_EQ(launcher_->records().size(), 2u);
    EXPECT_EQ(launcher_->records()[0].argv,
              (std::vector<std::string>{tool_, "-v", "0x12d1", "-p", "0x1f16", "-J"}));
}

}  // namespace
