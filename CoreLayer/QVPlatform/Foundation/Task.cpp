#include "Task.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <mutex>
#include <thread>
#include <utility>

#include "Format.h"

extern char** environ;

namespace qv {

namespace {

// A child that floods its standard output is not allowed to exhaust the host's memory: output
// beyond this is read and dropped.
constexpr std::size_t kMaxCapturedOutput = 16 * 1024 * 1024;

std::mutex gSharedMutex;
std::shared_ptr<TaskLauncher> gShared;

int statusFromWait(int status) {
    if (WIFEXITED(status)) {
        return WEXITSTATUS(status);
    }
    if (WIFSIGNALED(status)) {
        return 128 + WTERMSIG(status);
    }
    return -1;
}

int waitForChild(pid_t pid) {
    int status = 0;
    for (;;) {
        pid_t result = waitpid(pid, &status, 0);
        if (result == pid) {
            return statusFromWait(status);
        }
        if (result < 0 && errno != EINTR) {
            return -1;  // reaped elsewhere (SIGCHLD ignored by the host, or its own reaper)
        }
    }
}

std::string describeArguments(const std::string& path, const std::vector<std::string>& arguments,
                              std::vector<char*>* argv) {
    if (path.empty()) {
        return "no program path";
    }
    if (path.find('\0') != std::string::npos) {
        return "program path contains a NUL byte";
    }
    argv->push_back(const_cast<char*>(path.c_str()));
    for (const std::string& argument : arguments) {
        if (argument.find('\0') != std::string::npos) {
            return format("argument %lu contains a NUL byte", argv->size());
        }
        argv->push_back(const_cast<char*>(argument.c_str()));
    }
    argv->push_back(nullptr);
    return {};
}

// The parent's file descriptors (other than 0-2 and what the actions set up) stay out of the
// child, and the child starts with default signal handling and an empty signal mask whatever the
// host has set up.
class SpawnSetup {
  public:
    SpawnSetup() {
        posix_spawn_file_actions_init(&actions_);
        posix_spawnattr_init(&attributes_);
        sigset_t mask;
        sigemptyset(&mask);
        posix_spawnattr_setsigmask(&attributes_, &mask);
        sigset_t defaults;
        sigemptyset(&defaults);
        for (int sig :
             {SIGPIPE, SIGCHLD, SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGUSR1, SIGUSR2, SIGALRM}) {
            sigaddset(&defaults, sig);
        }
        posix_spawnattr_setsigdefault(&attributes_, &defaults);
        posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    ~SpawnSetup() {
        posix_spawn_file_actions_destroy(&actions_);
        posix_spawnattr_destroy(&attributes_);
    }
    SpawnSetup(const SpawnSetup&) = delete;
    SpawnSetup& operator=(const SpawnSetup&) = delete;

    posix_spawn_file_actions_t* actions() { return &actions_; }

    // Starts the program; answers the pid or -1 with `error` set.
    pid_t spawn(const std::string& path, const std::vector<char*>& argv, std::string* error) {
        posix_spawn_file_actions_addclosefrom_np(&actions_, 3);
        pid_t pid = -1;
        int rc = posix_spawn(&pid, path.c_str(), &actions_, &attributes_, argv.data(), environ);
        if (rc != 0) {
            *error = format("%s: %s", path, std::strerror(rc));
            return -1;
        }
        return pid;
    }

  private:
    posix_spawn_file_actions_t actions_;
    posix_spawnattr_t attributes_;
};

}  // namespace

TaskLauncher& TaskLauncher::shared() {
    std::lock_guard<std::mutex> lock(gSharedMutex);
    if (!gShared) {
        gShared = std::make_shared<PosixTaskLauncher>();
    }
    return *gShared;
}

void TaskLauncher::setShared(std::shared_ptr<TaskLauncher> launcher) {
    std::lock_guard<std::mutex> lock(gSharedMutex);
    gShared = std::move(launcher);
}

std::shared_ptr<TaskLauncher> TaskLauncher::installed() {
    std::lock_guard<std::mutex> lock(gSharedMutex);
    return gShared;
}

bool PosixTaskLauncher::launch(const std::string& path, const std::vector<std::string>& arguments,
                               std::string* error) {
    std::vector<char*> argv;
    std::string problem = describeArguments(path, arguments, &argv);
    pid_t pid = -1;
    if (problem.empty()) {
        SpawnSetup setup;
        pid = setup.spawn(path, argv, &problem);
    }
    if (pid < 0) {
        if (error != nullptr) {
            *error = problem;
        }
        return false;
    }
    // The child is reaped by a thread of its own that waits for that pid only: the run loop never
    // blocks, no SIGCHLD handler of the host is replaced, and other children are left alone.
    std::thread([pid]() { waitForChild(pid); }).detach();
    return true;
}

TaskResult PosixTaskLauncher::run(const std::string& path,
                                  const std::vector<std::string>& arguments) {
    TaskResult result;
    std::vector<char*> argv;
    result.error = describeArguments(path, arguments, &argv);
    if (!result.error.empty()) {
        return result;
    }
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        result.error = format("cannot create a pipe: %s", std::strerror(errno));
        return result;
    }
    pid_t pid = -1;
    {
        SpawnSetup setup;
        posix_spawn_file_actions_adddup2(setup.actions(), fds[1], STDOUT_FILENO);
        pid = setup.spawn(path, argv, &result.error);
    }
    close(fds[1]);
    if (pid < 0) {
        close(fds[0]);
        return result;
    }
    result.launched = true;
    char buffer[4096];
    for (;;) {
        ssize_t n = read(fds[0], buffer, sizeof buffer);
        if (n > 0) {
            std::size_t room = kMaxCapturedOutput - result.output.size();
            result.output.append(buffer, std::min(room, static_cast<std::size_t>(n)));
        } else if (n == 0 || errno != EINTR) {
            break;
        }
    }
    close(fds[0]);
    result.exitStatus = waitForChild(pid);
    return result;
}

bool RecordingTaskLauncher::launch(const std::string& path,
                                   const std::vector<std::string>& arguments, std::string* error) {
    Record& record = records_.emplace_back();
    record.argv.push_back(path);
    record.argv.insert(record.argv.end(), arguments.begin(), arguments.end());
    Record copy = record;
    if (observer_) {
        observer_(copy);
    }
    auto it = results_.find(path);
    if (it != results_.end() && !it->second.launched) {
        if (error != nullptr) {
            *error = it->second.error;
        }
        return false;
    }
    return true;
}

TaskResult RecordingTaskLauncher::run(const std::string& path,
                                      const std::vector<std::string>& arguments) {
    Record& record = records_.emplace_back();
    record.argv.push_back(path);
    record.argv.insert(record.argv.end(), arguments.begin(), arguments.end());
    record.waited = true;
    Record copy = record;
    if (observer_) {
        observer_(copy);
    }
    auto it = results_.find(path);
    if (it != results_.end()) {
        return it->second;
    }
    TaskResult result;
    result.launched = true;
    result.exitStatus = 0;
    return result;
}

void RecordingTaskLauncher::setResult(const std::string& path, TaskResult result) {
    results_[path] = std::move(result);
}

}  // namespace qv
