// qv::AtEngine: the AT engine's I/O thread. One thread serves every port with poll(): each port
// runs one conversation at a time (later ones for the same port wait their turn), any number of
// ports run at once, and a silent or flooding port never delays another's answers.
//
// Time bounds: every command has its own timeout (AtCommand::timeout) and every conversation
// ends at the latest `conversationTimeout` seconds after its port was opened, with
// kGsmErrorNoResponse. A port that cannot be opened, is busy, or hangs up (EIO, HUP) ends its
// conversation with kGsmErrorPortUnavailable. Every deadline and every wait is read from the
// engine's clock (AtEngineOptions::clock): the monotonic one, or a test's that moves when told.
//
// Conversations are finished on the I/O thread, never inside submit(), with one exception: an
// engine that could not open the descriptor that wakes its thread (out of descriptors) runs no
// thread and refuses every conversation at once, in submit(), with kGsmErrorPortUnavailable and
// the reason. Destroying the engine finishes every conversation still waiting or running with
// kGsmErrorNoResponse, then joins.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "AtConversation.h"
#include "RunLoop/PollClock.h"
#include "WakeChannel.h"

namespace qv {

struct AtEngineOptions {
    std::vector<std::string> lockDirectories{"/run/lock", "/var/lock"};
    double conversationTimeout = 30.0;
    std::shared_ptr<PollClock> clock;  // nullptr: PollClock::monotonic()
};

class AtEngine {
  public:
    explicit AtEngine(AtEngineOptions options = {});
    ~AtEngine();
    AtEngine(const AtEngine&) = delete;
    AtEngine& operator=(const AtEngine&) = delete;

    // Queues a conversation; safe from any thread.
    void submit(std::unique_ptr<AtConversation> conversation);

  private:
    void run();
    void wake();

    AtEngineOptions options_;
    WakeChannel wake_;
    std::mutex mutex_;
    std::vector<std::unique_ptr<AtConversation>> incoming_;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace qv
