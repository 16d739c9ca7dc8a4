// qv::AtScriptConversation: a conversation written as a list of steps. Each step tries its
// commands in order until one answers OK with a value the step accepts, then goes on. A step whose
// every command is refused ends the conversation with `refusedCode` when it is required and is
// passed over when it is not. Any command that times out ends the conversation with
// kGsmErrorNoResponse (a late answer would otherwise be read as the answer to the next command),
// except a probe's. The very first command has its own, shorter timeout: it is what a silent port
// costs.
//
// A probe step (`attempts` > 1) is how a freshly plugged stick is asked whether it speaks AT: the
// first "AT" may be lost to noise, so it is sent up to `attempts` times, the first command's
// timeout shared between the tries; any final result, ERROR and "+CME ERROR" included (bytes left
// in the modem's buffer), proves the port speaks AT. After a retry the conversation waits, one
// two tries' time each, for the answers still owed to the other tries (a slow modem answers every
// one of them), so that no late answer is taken for the next command's.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "AtConversation.h"

namespace qv {

struct AtStep {
    std::vector<std::string> commands;
    bool required = true;
    // Reads an OK answer; false when the value is unusable, and the next command is tried.
    std::function<bool(const AtResponse&)> onAnswer;
    int attempts = 1;  // above 1: a probe (see above)
};

struct AtScriptTimeouts {
    double first = 3.0;    // the first command of the conversation (all tries of a probe)
    double command = 5.0;  // every other command
};

class AtScriptConversation : public AtConversation {
  public:
    // `done` gets 0 or a failure code, with the reason in words.
    using Completion = std::function<void(std::int32_t code, const std::string& reason)>;

    AtScriptConversation(std::string portPath, std::vector<AtStep> steps, AtScriptTimeouts timeouts,
                         std::int32_t refusedCode, Completion done);

    std::optional<AtCommand> next(const AtResponse* previous) override;
    void finish(std::int32_t code, const std::string& reason) override;

    // A probe step: "AT", sent up to three times.
    static AtStep probe();

  private:
    std::optional<AtCommand> current();
    std::optional<AtCommand> nextStep();
    AtCommand waitForOwedAnswer() const;

    std::vector<AtStep> steps_;
    AtScriptTimeouts timeouts_;
    std::int32_t refusedCode_;
    Completion done_;
    std::size_t step_ = 0;
    std::size_t alternative_ = 0;
    int attempt_ = 0;
    bool started_ = false;
    bool first_ = true;
    int owed_ = 0;  // answers still owed to a probe's earlier tries
    std::int32_t failureCode_ = 0;
    std::string failureReason_;
};

}  // namespace qv
