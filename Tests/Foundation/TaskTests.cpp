#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Foundation/Task.h"

namespace {

// Children of this process that the kernel still lists (running or not yet reaped).
std::vector<std::string> childrenOfThisProcess() {
    std::vector<std::string> children;
    std::string taskDir = "/proc/" + std::to_string(getpid()) + "/task";
    for (const auto& task : std::filesystem::directory_iterator(taskDir)) {
        std::ifstream file(task.path() / "children");
        std::string pid;
        while (file >> pid) {
            children.push_back(pid);
        }
    }
    return children;
}

TEST(PosixTaskLauncher, RunPassesArgumentsVerbatimAndCapturesOutput) {
    qv::PosixTaskLauncher launcher;
    // No shell is involved: its special characters arrive as they are.
    qv::TaskResult echo = launcher.run("/bin/echo", {"hello", "$HOME; rm -rf /tmp/x", "*"});
    EXPECT_TRUE(echo.launched);
    EXPECT_EQ(echo.exitStatus, 0);
    EXPECT_EQ(echo.output, "hello $HOME; rm -rf /tmp/x *\n");

    qv::TaskResult failing = launcher.run("/bin/false", {});
    EXPECT_TRUE(failing.launched);
    EXPECT_EQ(failing.exitStatus, 1);

    qv::TaskResult killed = launcher.run("/bin/sh", {"-c", "kill -TERM $$"});
    EXPECT_EQ(killed.exitStatus, 128 + 15);

    // More output than a pipe holds must not deadlock the reader and child.
    qv::TaskResult large = launcher.run("/bin/sh", {"-c", "head -c 300000 /dev/zero"});
    EXPECT_EQ(large.exitStatus, 0);
    EXPECT_EQ(large.output.size(), 300000u);
}

TEST(PosixTaskLauncher, ProgramsThatCannotStartAreReportedNotCrashed) {
    qv::PosixTaskLauncher launcher;
    qv::TaskResult missing = launcher.run("/nonexistent/qv-no-such-tool", {"x"});
    EXPECT_FALSE(missing.launched);
    EXPECT_NE(missing.error.find("/nonexistent/qv-no-such-tool"), std::string::npos);
    EXPECT_NE(missing.error.find("No such file"), std::string::npos);

    std::string error;
    EXPECT_FALSE(launcher.launch("/nonexistent/qv-no-such-tool", {}, &error));
    EXPECT_NE(error.find("No such file"), std::string::npos);

    // No search path: a bare name is not looked up.
    EXPECT_FALSE(launcher.run("true", {}).launched);
    EXPECT_FALSE(launcher.launch("", {}, &error));
    EXPECT_FALSE(launcher.launch("/bin/echo", {std::string("a\0b", 3)}, &error));
    EXPECT_NE(error.find("NUL"), std::string::npos);
}

TEST(PosixTaskLauncher, LaunchDoesNotWaitAndChildrenAreReaped) {
    qv::PosixTaskLauncher launcher;
    std::vector<std::string> before = childrenOfThisProcess();
    std::string error;
    ASSERT_TRUE(launcher.launch("/bin/true", {}, &error)) << error;
    ASSERT_TRUE(launcher.launch("/bin/echo", {"launched"}, &error)) << error;
    // A long-running child: launch() returns while it still runs.
    ASSERT_TRUE(launcher.launch("/bin/sleep", {"0.3"}, &error)) << error;
    EXPECT_GT(childrenOfThisProcess().size(), before.size());

    // Reaped in the background: no zombie stays listed. Bounded wait, not a speed check.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (childrenOfThisProcess().size() > before.size() &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_EQ(childrenOfThisProcess(), before);
}

TEST(RecordingTaskLauncher, RecordsEveryStartAndAnswersConfiguredResults) {
    auto recorder = std::make_shared<qv::RecordingTaskLauncher>();
    std::vector<std::vector<std::string>> observed;
    recorder->setObserver(
        [&](const qv::RecordingTaskLauncher::Record& record) { observed.push_back(record.argv); });
    qv::TaskResult diskutil;
    diskutil.launched = true;
    diskutil.exitStatus = 3;
    diskutil.output = "busy\n";
    recorder->setResult("/usr/sbin/diskutil", diskutil);
    qv::TaskResult broken;
    broken.error = "not installed";
    recorder->setResult("/opt/tool", broken);

    qv::TaskLauncher::setShared(recorder);
    qv::TaskLauncher& shared = qv::TaskLauncher::shared();
    EXPECT_TRUE(shared.launch("/usr/bin/killall", {"-9", "App"}));
    qv::TaskResult ran = shared.run("/usr/sbin/diskutil", {"eject", "disk2"});
    qv::TaskResult plain = shared.run("/bin/anything", {});
    std::string error;
    EXPECT_FALSE(shared.launch("/opt/tool", {}, &error));
    qv::TaskLauncher::setShared(nullptr);

    EXPECT_EQ(ran.exitStatus, 3);
    EXPECT_EQ(ran.output, "busy\n");
    EXPECT_TRUE(plain.launched);
    EXPECT_EQ(plain.exitStatus, 0);
    EXPECT_EQ(error, "not installed");

    ASSERT_EQ(recorder->records().size(), 4u);
    EXPECT_EQ(recorder->records()[0].argv,
              (std::vector<std::string>{"/usr/bin/killall", "-9", "App"}));
    EXPECT_FALSE(recorder->records()[0].waited);
    EXPECT_TRUE(recorder->records()[1].waited);
    EXPECT_EQ(observed.size(), 4u);

    // The real launcher is back once the recorder is removed.
    EXPECT_NE(dynamic_cast<qv::PosixTaskLauncher*>(&qv::TaskLauncher::shared()), nullptr);
}

}  // namespace
