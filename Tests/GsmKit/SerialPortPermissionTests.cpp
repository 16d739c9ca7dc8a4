// A user who may not open a modem's port, made real: a root-owned node with a tty's modes
// (root:dialout 0660), opened by a thread that runs as nobody. The raw system calls change the
// credentials of that one thread only (glibc's setuid would change every thread's).
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Foundation/Logging.h"
#include "QVGsmKit/SerialPort.h"

namespace {

constexpr uid_t kNobody = 65534;

gid_t dialoutGroup() {
    struct group* dialout = getgrnam("dialout");
    return dialout != nullptr ? dialout->gr_gid : 20;  // Debian's dialout
}

TEST(SerialPortPermission, AUserWithoutAccessIsToldWhatIsMissingAndRootIsNot) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root, to make a root-owned port node and to act as nobody";
    }
    char directoryTemplate[] = "/tmp/qv-port-XXXXXX";
    ASSERT_NE(mkdtemp(directoryTemplate), nullptr);
    const std::string directory = directoryTemplate;
    ASSERT_EQ(chmod(directory.c_str(), 0755), 0);
    const std::string path = directory + "/ttyUSB9";
    // /dev/null's numbers: a character device that is no terminal.
    if (mknod(path.c_str(), S_IFCHR | 0660, makedev(1, 3)) != 0) {
        rmdir(directory.c_str());
        GTEST_SKIP() << "cannot make device nodes here";
    }
    ASSERT_EQ(chown(path.c_str(), 0, dialoutGroup()), 0);
    ASSERT_EQ(chmod(path.c_str(), 0660), 0);

    std::mutex mutex;
    std::vector<std::string> log;
    qv::setNamedLogSink([&](const std::string&, const std::string& line) {
        std::lock_guard<std::mutex> lock(mutex);
        log.push_back(line);
    });

    // Root passes the permission check and fails later, for what the node is.
    qv::SerialPort::Failure failure = qv::SerialPort::Failure::None;
    std::string reason;
    EXPECT_EQ(qv::SerialPort::open(path, {}, &failure, &reason), nullptr);
    if (failure == qv::SerialPort::Failure::CannotOpen) {
        qv::setNamedLogSink({});
        std::remove(path.c_str());
        rmdir(directory.c_str());
        GTEST_SKIP() << "device nodes do not open here (a nodev mount?): " << reason;
    }
    EXPECT_EQ(failure, qv::SerialPort::Failure::NotASerialPort) << reason;
    EXPECT_TRUE(log.empty());

    bool becameNobody = false;
    std::unique_ptr<qv::SerialPort> port;
    std::thread user([&] {
        becameNobody = syscall(SYS_setgroups, 0, nullptr) == 0 &&
                       syscall(SYS_setresgid, kNobody, kNobody, kNobody) == 0 &&
                       syscall(SYS_setresuid, kNobody, kNobody, kNobody) == 0;
        if (becameNobody) {
            port = qv::SerialPort::open(path, {}, &failure, &reason);
        }
    });
    user.join();
    qv::setNamedLogSink({});
    std::remove(path.c_str());
    rmdir(directory.c_str());
    ASSERT_TRUE(becameNobody);

    EXPECT_EQ(port, nullptr);
    EXPECT_EQ(failure, qv::SerialPort::Failure::CannotOpen);
    const std::string dialout = getgrgid(dialoutGroup()) != nullptr
                                    ? getgrgid(dialoutGroup())->gr_name
                                    : std::to_string(dialoutGroup());
    EXPECT_EQ(reason.rfind("no permission to open " + path + ": ", 0), 0u) << reason;
    EXPECT_NE(reason.find("udev rule"), std::string::npos) << reason;
    EXPECT_NE(reason.find("usermod -aG " + dialout + " USER"), std::string::npos) << reason;
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0], "AT engine: " + reason);
}

}  // namespace
