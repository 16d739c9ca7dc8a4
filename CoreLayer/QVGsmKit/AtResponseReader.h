// qv::AtResponseReader: turns the bytes a modem sends on one port into the answers to the AT
// commands sent there, one command at a time. It reads the port's bytes as one stream of lines:
// - a line that ends while no command is in flight (before the first command, after a final
//   result, or begun before the command was sent) is a report, never part of an answer; bytes that
//   follow a final result in the same read are read on, as what comes next;
// - during a command: echo on or off; CR, LF, CR LF, CR CR LF or LF CR line ends; unsolicited
//   lines ("^RSSI:", "+CREG:", RING, the bare "RDY", "PB DONE", "SMS DONE"...) are dropped; an
//   extended "+CREG: stat,lac,ci" report is told from the "+CREG: n,stat" answer by its shape;
// - characters: NUL, 0xFF and other control bytes before a line's first character are noise and
//   skipped; inside a line the control bytes of the GSM 7-bit alphabet read as their characters
//   (0x00 '@', 0x02 '$', 0x11 '_', others '?'), TAB as a blank; ESC or a byte UTF-8 never uses
//   (0xF8-0xFF) makes the line noise, dropped whole; other bytes above ASCII read as '?'.
// A line longer than kMaxLineLength is cut there (the rest of it is dropped) and at most kMaxLines
// information lines are kept. Nothing here ever reads past what it was given.
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
    // Whether the modem answered at all with a final result (OK or any refusal).
    bool answered() const { return final != AtFinal::None && final != AtFinal::Timeout; }
    // The first information line without a leading label ("+CGMR:", "^ICCID:", "ICCID:"), outer
    // blanks and outer quotes; inner blanks stay.
    std::string firstValue() const;
};

class AtResponseReader {
  public:
    static constexpr std::size_t kMaxLineLength = 1024;
    static constexpr std::size_t kMaxLines = 64;

    // Starts reading the answer to `command` (as sent, without the line end). A line already
    // begun belongs to what came before.
    void begin(std::string command);
    // No command in flight any more (the engine gave up waiting, or only listens): whatever
    // arrives, the rest of a line already begun included, is a report.
    void standBy();
    // Feeds received bytes, all of them; answers whether the command in flight has its final
    // result. What follows the final result is read on as reports.
    bool feed(const char* data, std::size_t size);
    bool complete() const { return response_.final != AtFinal::None; }
    const AtResponse& response() const { return response_; }
    // Reports and noise lines dropped since begin().
    std::size_t droppedLines() const { return unsolicited_; }

    // The final result a line stands for, AtFinal::None for any other line.
    static AtFinal finalResultOf(std::string_view line);
    // Whether `line` is an unsolicited report rather than part of the answer to `command`.
    static bool isUnsolicited(std::string_view line, std::string_view command);

  private:
    void take(unsigned char c);
    void endLine();

    std::string command_;
    std::string line_;
    bool lineGarbled_ = false;
    bool lineBeforeCommand_ = false;  // the line in progress began while nothing was in flight
    bool inFlight_ = false;
    bool echoSeen_ = false;
    std::size_t unsolicited_ = 0;
    AtResponse response_;
};

}  // namespace qv
