// qv-modem-simulator --link PATH: never replaces what is at PATH, removes only its own link.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace {

namespace fs = std::filesystem;

struct Simulator {
    pid_t pid = -1;
    int out = -1;
    std::string port;  // its first line
};

Simulator startSimulator(const std::string& link) {
    int pipeFds[2];
    if (::pipe(pipeFds) != 0) {
        return {};
    }
    pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(pipeFds[1], 1);
        ::close(pipeFds[0]);
        ::close(pipeFds[1]);
        const char* profile = QV_MODEM_PROFILES_DIR "/huawei-e1750.json";
        ::execl(QV_MODEM_SIMULATOR_PATH, "qv-modem-simulator", profile, "--link", link.c_str(),
                static_cast<char*>(nullptr));
        ::_exit(127);
    }
    ::close(pipeFds[1]);
    Simulator simulator{pid, pipeFds[0], {}};
    char c = 0;
    while (::read(simulator.out, &c, 1) == 1 && c != '\n') {
        simulator.port.push_back(c);
    }
    return simulator;
}

int stopSimulator(Simulator& simulator) {
    ::kill(simulator.pid, SIGTERM);
    int status = 0;
    ::waitpid(simulator.pid, &status, 0);
    ::close(simulator.out);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class ModemSimulatorLink : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/qv-sim-link-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        dir_ = pattern;
    }
    void TearDown() override { fs::remove_all(dir_); }
    std::string dir_;
};

TEST_F(ModemSimulatorLink, WhatWasAtThePathIsNeverReplaced) {
    std::string file = dir_ + "/modem";
    { std::ofstream(file) << "the user's own file\n"; }
    std::string otherLink = dir_ + "/other";
    fs::create_symlink("/dev/null", otherLink);
    for (const std::string& path : {file, otherLink}) {
        Simulator simulator = startSimulator(path);
        int status = 0;
        ::waitpid(simulator.pid, &status, 0);
        ::close(simulator.out);
        ASSERT_TRUE(WIFEXITED(status)) << path;
        EXPECT_EQ(WEXITSTATUS(status), 2) << path;
    }
    std::ifstream in(file);
    std::string text;
    std::getline(in, text);
    EXPECT_EQ(text, "the user's own file");
    EXPECT_EQ(fs::read_symlink(otherLink), "/dev/null");
}

TEST_F(ModemSimulatorLink, OwnLinkRemovedAtTheEndButNotWhatReplacedIt) {
    std::string path = dir_ + "/ttyModem";
    Simulator simulator = startSimulator(path);
    ASSERT_FALSE(simulator.port.empty());
    ASSERT_TRUE(fs::is_symlink(path));
    EXPECT_EQ(fs::read_symlink(path), simulator.port);
    EXPECT_EQ(stopSimulator(simulator), 0);
    EXPECT_FALSE(fs::exists(fs::symlink_status(path)));

    // Somebody else puts a file there while the simulator runs: it stays.
    Simulator second = startSimulator(path);
    ASSERT_TRUE(fs::is_symlink(path));
    fs::remove(path);
    { std::ofstream(path) << "replaced\n"; }
    EXPECT_EQ(stopSimulator(second), 0);
    EXPECT_TRUE(fs::is_regular_file(path));
}

}  // namespace
