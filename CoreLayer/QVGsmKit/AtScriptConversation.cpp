#include "AtScriptConversation.h"

#include <algorithm>
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
    for (AtStep& step : steps_) {
        step.attempts = std::clamp(step.attempts, 1, 10);
    }
}

AtStep AtScriptConversation::probe() {
    AtStep step{{"AT"}, true, nullptr};
    step.attempts = 3;
    return step;
}

std::optional<AtCommand> AtScriptConversation::current() {
    if (step_ >= steps_.size()) {
        return std::nullopt;
    }
    const AtStep& step = steps_[step_];
    double timeout = timeouts_.command;
    if (step.attempts > 1) {
        // The first command's bound is what a silent port costs, shared by a probe's tries.
        timeout = timeouts_.first / static_cast<double>(step.attempts);
    } else if (first_) {
        timeout = timeouts_.first;
    }
    first_ = false;
    return AtCommand{step.commands[alternative_], timeout};
}

AtCommand AtScriptConversation::waitForOwedAnswer() const {
    const AtStep& step = steps_[step_];
    // Two tries' time: the owed answer left the modem about one try after the one we got.
    double slice = timeouts_.first / static_cast<double>(step.attempts);
    return AtCommand{{}, std::min(2.0 * slice, timeouts_.first), true};
}

std::optional<AtCommand> AtScriptConversation::nextStep() {
    ++step_;
    alternative_ = 0;
    attempt_ = 0;
    return current();
}

std::optional<AtCommand> AtScriptConversation::next(const AtResponse* previous) {
    if (!started_ || previous == nullptr) {
        started_ = true;
        return current();
    }
    if (owed_ > 0) {
        if (previous->answered() && --owed_ > 0) {
            return waitForOwedAnswer();
        }
        owed_ = 0;
        return nextStep();
    }
    if (step_ >= steps_.size()) {
        return std::nullopt;
    }
    const AtStep& step = steps_[step_];
    const std::string& sent = step.commands[alternative_];
    if (step.attempts > 1) {
        if (previous->answered()) {
            if (attempt_ == 0) {
                return nextStep();
            }
            owed_ = attempt_;
            return waitForOwedAnswer();
        }
        if (++attempt_ < step.attempts) {
            return current();
        }
        failureCode_ = kGsmErrorNoResponse;
        failureReason_ = portPath() + ": no answer to \"" + sent + "\" in " +
                         std::to_string(step.attempts) + " tries";
        return std::nullopt;
    }
    if (previous->ok()) {
        if (!step.onAnswer || step.onAnswer(*previous)) {
            return nextStep();
        }
    } else if (previous->final == AtFinal::Timeout) {
        failureCode_ = kGsmErrorNoResponse;
        failureReason_ = portPath() + ": no answer to \"" + sent + "\" in time";
        return std::nullopt;
    }
    if (alternative_ + 1 < step.commands.size()) {
        ++alternative_;
        return current();
    }
    if (step.required) {
        failureCode_ = refusedCode_;
        failureReason_ = portPath() + ": the modem refused \"" + sent + "\" (" +
                         (previous->ok() ? std::string("no usable value") : previous->finalLine) +
                         ")";
        return std::nullopt;
    }
    return nextStep();
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
