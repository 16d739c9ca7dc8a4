// The port's own settings survive the engine, and consoles are never talked to.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <termios.h>
#include <unistd.h>

#include <string>

#include "ModemSimulator.h"
#include "QVGsmKit/SerialPort.h"
#include "Support/ToolRunner.h"

namespace {

TEST(SerialPortConsoles, ConsolesByDeviceNumberAndTheKernelsActiveList) {
    struct Case {
        unsigned int major;
        unsigned int minor;
        const char* name;
        const char* active;
        bool console;
    } cases[] = {
        {5, 0, "tty", "", true},
        {5, 1, "console", "", true},
        {5, 2, "ptmx", "", true},
        {4, 0, "tty0", "", true},
        {4, 63, "tty63", "", true},
        {4, 64, "ttyS0", "tty0", false},
        {4, 64, "ttyS0", "tty0 ttyS0", true},
        {188, 0, "ttyUSB0", "tty0 ttyS0", false},
        {166, 2, "ttyACM2", "ttyACM2", true},
        {136, 4, "pts/4", "tty0", false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(qv::SerialPort::isConsole(makedev(c.major, c.minor), c.name, c.active), c.console)
            << c.name << " (" << c.major << "," << c.minor << ") active \"" << c.active << "\"";
    }
}

TEST(SerialPortConsoles, QvdeviceModemRefusesTheControllingTerminal) {
    struct stat info {};
    if (::stat("/dev/tty", &info) != 0) {
        GTEST_SKIP() << "no /dev/tty here";
    }
    ToolRun run = runQvdevice({"modem", "/dev/tty", "identify", "--timeout", "1"});
    EXPECT_EQ(run.code, 1);
    EXPECT_NE(run.err.find("console"), std::string::npos) << run.err;
}

TEST(SerialPortConsoles, QvdeviceModemPutsThePortsSettingsBack) {
    std::string error;
    qvsim::ModemProfile profile;
    profile.replies["AT+CGMI"] = {"huawei", "OK"};
    profile.replies["AT+CGMM"] = {"E1750", "OK"};
    auto modem = qvsim::ModemSimulator::start(profile, &error);
    ASSERT_TRUE(modem) << error;
    int fd = ::open(modem->portPath().c_str(), O_RDWR | O_NOCTTY);
    ASSERT_GE(fd, 0);
    termios cooked{};
    ASSERT_EQ(::tcgetattr(fd, &cooked), 0);
    cooked.c_iflag |= ICRNL | IXON;
    cooked.c_oflag |= OPOST | ONLCR;
    cooked.c_lflag |= ICANON | ISIG;
    cooked.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    ::cfsetispeed(&cooked, B9600);
    ::cfsetospeed(&cooked, B9600);
    ASSERT_EQ(::tcsetattr(fd, TCSANOW, &cooked), 0);
    ASSERT_EQ(::tcgetattr(fd, &cooked), 0);

    ToolRun run = runQvdevice({"modem", modem->portPath(), "identify"});
    EXPECT_EQ(run.code, 0) << run.err;

    termios after{};
    ASSERT_EQ(::tcgetattr(fd, &after), 0);
    EXPECT_EQ(after.c_iflag, cooked.c_iflag);
    EXPECT_EQ(after.c_oflag, cooked.c_oflag);
    EXPECT_EQ(after.c_lflag, cooked.c_lflag);
    EXPECT_EQ(after.c_cflag, cooked.c_cflag);
    EXPECT_EQ(::cfgetospeed(&after), static_cast<speed_t>(B9600));
    ::close(fd);
}

}  // namespace
