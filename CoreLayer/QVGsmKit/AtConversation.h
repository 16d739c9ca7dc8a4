// qv::AtConversation: what the AT engine does on one port for one request: a series of commands,
// each chosen after the answer to the one before. The engine calls next() and finish() on its I/O
// thread only, one conversation per port at a time.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "AtResponseReader.h"

namespace qv {

struct AtCommand {
    std::string text;      // without the line end; the engine sends "\r" after it
    double timeout = 5.0;  // seconds for the final result to arrive
    // Sends nothing and waits up to `timeout` seconds for a final result (one owed for an earlier
    // command); the conversation gets it, or an AtFinal::Timeout answer.
    bool listenOnly = false;
};

class AtConversation {
  public:
    explicit AtConversation(std::string portPath) : portPath_(std::move(portPath)) {}
    virtual ~AtConversation() = default;

    const std::string& portPath() const { return portPath_; }

    // The first command (`previous` is nullptr) and each next one after an answer (a final result
    // or AtFinal::Timeout); nullopt ends the conversation, which is then finished with code 0.
    virtual std::optional<AtCommand> next(const AtResponse* previous) = 0;
    // Called exactly once: code 0 when next() ended the conversation, otherwise the failure's
    // result code (GsmResultCodes.h) and its reason in words.
    virtual void finish(std::int32_t code, const std::string& reason) = 0;

  private:
    std::string portPath_;
};

}  // namespace qv
