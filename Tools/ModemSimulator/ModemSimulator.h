// qvsim::ModemSimulator: a modem on a pseudo-terminal. It opens a pty pair, answers the AT
// commands written to the slave side as its ModemProfile says, on a thread of its own, until it
// is destroyed or hangs up. Tests use it in-process; qv-modem-simulator wraps it as a program.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ModemProfile.h"

namespace qvsim {

class ModemSimulator {
  public:
    // nullptr and the reason when no pty could be made.
    static std::unique_ptr<ModemSimulator> start(ModemProfile profile, std::string* error);
    ~ModemSimulator();
    ModemSimulator(const ModemSimulator&) = delete;
    ModemSimulator& operator=(const ModemSimulator&) = delete;

    // The pty's slave path ("/dev/pts/4"): the modem's port.
    const std::string& portPath() const { return slavePath_; }
    // The commands received so far, in order.
    std::vector<std::string> commands() const;
    // Whether the modem hung up (hangUpAfter).
    bool hungUp() const { return hungUp_.load(); }

  private:
    ModemSimulator(ModemProfile profile, int master, int slave, std::string slavePath);
    void run();
    void answer(const std::string& command);
    std::vector<std::string> reply(const std::string& command);
    void write(const std::string& bytes);
    void hangUp();

    ModemProfile profile_;
    int master_;
    int slave_;  // held open so that the master never reads as hung up between clients
    int stopPipe_[2] = {-1, -1};
    std::string slavePath_;
    bool echo_;
    std::atomic<bool> hungUp_{false};
    mutable std::mutex mutex_;
    std::vector<std::string> commands_;
    std::thread thread_;
};

}  // namespace qvsim
