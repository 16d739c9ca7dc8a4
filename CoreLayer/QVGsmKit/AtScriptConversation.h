// qv::AtScriptConversation: a conversation written as a list of steps. Each step tries its
// commands in order until one answers OK, then hands that answer to the step. A step whose every
// command is refused ends the conversation with `refusedCode` when it is required and is passed
// over when it is not. Any command that times out ends the conversation with kGsmErrorNoResponse
// (a late answer would otherwise be read as the answer to the next command). The very first
// command has its own, shorter timeout: it is what a silent port costs.
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
    std::function<void(const AtResponse&)> onAnswer;
};

struct AtScriptTimeouts {
    double first = 3.0;    // the first command of the conversation
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

  private:
    std::optional<AtCommand> current();

    std::vector<AtStep> steps_;
    AtScriptTimeouts timeouts_;
    std::int32_t refusedCode_;
    Completion done_;
    std::size_t step_ = 0;
    std::size_t alternative_ = 0;
    bool started_ = false;
    bool first_ = true;
    std::int32_t failureCode_ = 0;
    std::string failureReason_;
};

}  // namespace qv
