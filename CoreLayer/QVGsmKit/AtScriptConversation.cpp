#include "AtScriptConversation.h"

#include <utility>

#include "GsmResultCodes.h"

namespace qv {

AtScriptConversation::AtScriptConversation(std::string portPath, std::vector<AtStep> steps,
                                           AtScriptTimeouts timeouts, std::int32_t refusedCode,
                                           Completion done)
    : AtConversation(std::move(portPath)),
      steps_(std::move(steps)),
      timeouts_(timeouts),
      refusedCode_(refusedCode),
      done_(std::move(done)) {
    std::erase_if(steps_, [](const AtStep& step) { return step.commands.empty(); });
}

std::optional<AtCommand> AtScriptConversation::current() {
    if (step_ >= steps_.size()) {
        return std::nullopt;
    }
    AtCommand command{steps_[step_].commands[alternative_],
                      first_ ? timeouts_.first : timeouts_.command};
    first_ = false;
    return command;
}

std::optional<AtCommand> AtScriptConversation::next(const AtResponse* previous) {
    if (!started_ || previous == nullptr) {
        started_ = true;
        return current();
    }
    if (step_ >= steps_.size()) {
        return std::nullopt;
    }
    const AtStep& step = steps_[step_];
    const std::string& sent = step.commands[alternative_];
    if (previous->ok()) {
        if (step.onAnswer) {
            step.onAnswer(*previous);
        }
    } else if (previous->final == AtFinal::Timeout) {
        failureCode_ = kGsmErrorNoResponse;
        failureReason_ = portPath() + ": no answer to \"" + sent + "\" in time";
        return std::nullopt;
    } else if (alternative_ + 1 < step.commands.size()) {
        ++alternative_;
        return current();
    } else if (step.required) {
        failureCode_ = refusedCode_;
        failureReason_ =
            portPath() + ": the modem refused \"" + sent + "\" (" + previous->finalLine + ")";
        return std::nullopt;
    }
    ++step_;
    alternative_ = 0;
    return current();
}

void AtScriptConversation::finish(std::int32_t code, const std::string& reason) {
    if (!done_) {
        return;
    }
    Completion done = std::move(done_);
    if (code == 0 && failureCode_ != 0) {
        done(failureCode_, failureReason_);
    } else {
        done(code, reason);
    }
}

}  // namespace qv
