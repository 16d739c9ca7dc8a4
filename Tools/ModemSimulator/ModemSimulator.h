// qvsim::ModemSimulator: a modem on a pseudo-terminal. It opens a pty pair, answers the AT
// commands written to the slave side as its ModemProfile says, on a thread of its own, until it
// is destroyed or hangs up. Tests use it in-process; qv-modem-simulator wraps it as a program.
//
// Everything the modem says goes through one outbox of timed writes, in order: answers after
// their latency, periodic reports cut in two writes at a moving byte position, single bytes when
// the profile asks for them. A write the pty cannot take yet waits for room (the rest is kept,
// never dropped).
#pragma once

#include <atomic>
#include <chrono>
#include <deque>
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
    // The commands received so far, in order (the swallowed ones included).
    std::vector<std::string> commands() const;
    // Whether the modem hung up (hangUpAfter).
    bool hungUp() const { return hungUp_.load(); }

  private:
    using Clock = std::chrono::steady_clock;
    struct Chunk {
        Clock::time_point due;
        std::string bytes;
        bool hangUp = false;
    };

    ModemSimulator(ModemProfile profile, int master, int slave, std::string slavePath);
    void run();
    void answer(const std::string& command);
    std::vector<std::string> reply(const std::string& command);
    std::string cmeError(int code, const char* text) const;
    std::string line(const std::string& text) const { return lineEnd() + text + lineEnd(); }
    const std::string& lineEnd() const { return profile_.lineEnd; }
    void send(std::string bytes, double delay);
    void sendReport();
    bool writeDue();
    void hangUp();

    ModemProfile profile_;
    int master_;
    int slave_;  // held open so that the master never reads as hung up between clients
    int stopPipe_[2] = {-1, -1};
    std::string slavePath_;
    bool echo_;
    int cmee_;
    std::string charset_;
    Clock::time_point started_;
    Clock::time_point nextReport_;
    std::size_t reportIndex_ = 0;
    std::size_t reportCut_ = 0;
    std::size_t answered_ = 0;
    bool firstNoiseSent_ = false;
    std::deque<Chunk> outbox_;
    std::atomic<bool> hungUp_{false};
    mutable std::mutex mutex_;
    std::vector<std::string> commands_;
    std::thread thread_;
};

}  // namespace qvsim
