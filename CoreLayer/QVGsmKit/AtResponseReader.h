// qv::AtResponseReader: turns the bytes a modem sends after one AT command into that command's
// answer. It copes with what real modems do: echo on or off, CR, LF or CRLF line ends, unsolicited
// lines before and between the answer's lines (Huawei "^RSSI:", "^BOOT:", "+CREG:", "RING"...),
// NUL bytes and garbage. A line that holds a control character (NUL, ESC..., not TAB), DEL or a
// byte that UTF-8 never uses (0xF8-0xFF) is noise and dropped whole; other bytes above ASCII read
// as '?'. A line longer than kMaxLineLength is cut there (the rest of it is dropped) and at most
// kMaxLines information lines are kept. Nothing here ever reads past what it was given.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace qv {

enum class AtFinal {
    None,  // still waiting
    Ok,
    Error,     // "ERROR", "COMMAND NOT SUPPORT", "TOO MANY PARAMETERS"
    CmeError,  // "+CME ERROR: n|text"
    CmsError,  // "+CMS ERROR: n|text"
    NoCarrier,
    Busy,
    NoAnswer,
    NoDialtone,
    Connect,  // "CONNECT" or "CONNECT <rate>"
    Timeout,  // set by the engine: the modem did not finish in time
};

struct AtResponse {
    AtFinal final = AtFinal::None;
    std::string finalLine;           // the final result line as received
    std::vector<std::string> lines;  // the information lines, in order, without echo and noise
    bool ok() const { return final == AtFinal::Ok; }
    // The first information line without a leading label ("+CGMR:", "^ICCID:", "ICCID:") and
    // blanks.
    std::string firstValue() const;
};

class AtResponseReader {
  public:
    static constexpr std::size_t kMaxLineLength = 1024;
    static constexpr std::size_t kMaxLines = 64;

    // Starts reading the answer to `command` (as sent, without the line end).
    void begin(std::string command);
    // Feeds received bytes; answers whether the final result has arrived. Bytes after the final
    // line belong to nobody and are dropped.
    bool feed(const char* data, std::size_t size);
    bool complete() const { return response_.final != AtFinal::None; }
    const AtResponse& response() const { return response_; }
    // Unsolicited and garbled lines dropped since begin().
    std::size_t droppedLines() const { return unsolicited_; }

    // The final result a line stands for, AtFinal::None for any other line.
    static AtFinal finalResultOf(std::string_view line);
    // Whether `line` is an unsolicited report rather than part of the answer to `command`.
    static bool isUnsolicited(std::string_view line, std::string_view command);

  private:
    void endLine();

    std::string command_;
    std::string line_;
    bool lineGarbled_ = false;
    bool echoSeen_ = false;
    std::size_t unsolicited_ = 0;
    AtResponse response_;
};

}  // namespace qv
