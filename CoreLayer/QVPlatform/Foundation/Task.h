// qv::TaskLauncher: starts external programs with an argument list, never through a shell
// (NSTask). One process-wide launcher; tests and the simulator install a recording one.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace qv {

struct TaskResult {
    bool launched = false;  // false: the program could not be started (error says why)
    int exitStatus = -1;    // the exit code, or 128 + signal number when killed by a signal
    std::string output;     // standard output (run() only)
    std::string error;
};

class TaskLauncher {
  public:
    virtual ~TaskLauncher() = default;

    // Starts `path` with `arguments` (argv[1..]) and does not wait. The child is reaped in the
    // background. Returns false, with a reason, when it could not be started.
    virtual bool launch(const std::string& path, const std::vector<std::string>& arguments,
                        std::string* error = nullptr) = 0;
    // Starts `path` and waits for it, capturing its standard output.
    virtual TaskResult run(const std::string& path, const std::vector<std::string>& arguments) = 0;

    static TaskLauncher& shared();
    // nullptr restores the real launcher.
    static void setShared(std::shared_ptr<TaskLauncher> launcher);
    // The one set now, or the real one once made; nullptr before either (to put back later).
    static std::shared_ptr<TaskLauncher> installed();
};

// The real launcher: posix_spawn, no shell.
class PosixTaskLauncher : public TaskLauncher {
  public:
    bool launch(const std::string& path, const std::vector<std::string>& arguments,
                std::string* error = nullptr) override;
    TaskResult run(const std::string& path, const std::vector<std::string>& arguments) override;
};

// Records every start (argv[0] is the path) and answers with configured results.
class RecordingTaskLauncher : public TaskLauncher {
  public:
    struct Record {
        std::vector<std::string> argv;
        bool waited = false;
    };

    bool launch(const std::string& path, const std::vector<std::string>& arguments,
                std::string* error = nullptr) override;
    TaskResult run(const std::string& path, const std::vector<std::string>& arguments) override;

    // The result run() gives for a program path (default: launched, exit 0, no output).
    void setResult(const std::string& path, TaskResult result);
    // Called after each start is recorded (the simulator turns it into an event).
    void setObserver(std::function<void(const Record&)> observer) {
        observer_ = std::move(observer);
    }

    const std::vector<Record>& records() const { return records_; }
    void clear() { records_.clear(); }

  private:
    std::vector<Record> records_;
    std::map<std::string, TaskResult> results_;
    std::function<void(const Record&)> observer_;
};

}  // namespace qv
