#include "AtResponseReader.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <utility>

namespace qv {

namespace {

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::toupper(static_cast<unsigned char>(x)) ==
                      std::toupper(static_cast<unsigned char>(y));
           });
}

bool startsWithIgnoringCase(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() &&
           equalsIgnoringCase(text.substr(0, prefix.size()), prefix);
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && text.front() == ' ') {
        text.remove_prefix(1);
    }
    while (!text.empty() && text.back() == ' ') {
        text.remove_suffix(1);
    }
    return text;
}

bool isReportPrefix(char c) {
    return c == '+' || c == '^' || c == '_' || c == '*' || c == '$' || c == '%' || c == '#';
}

// "+CREG" of "+CREG: 0,1"; the whole line when it has no colon.
std::string_view reportName(std::string_view line) {
    std::size_t colon = line.find(':');
    return trimmed(colon == std::string_view::npos ? line : line.substr(0, colon));
}

struct CommandName {
    std::string_view name;    // "+CREG"
    std::string_view suffix;  // "?", "=?", "=" (with or without parameters) or ""
};

// The names a command asks for: "+CREG" of "AT+CREG?", "+CGMI" and "+CGMM" of "AT+CGMI;+CGMM".
std::vector<CommandName> commandNames(std::string_view command) {
    std::vector<CommandName> names;
    if (startsWithIgnoringCase(command, "AT")) {
        command.remove_prefix(2);
    }
    while (!command.empty()) {
        std::size_t semicolon = command.find(';');
        std::string_view part = command.substr(0, semicolon);
        std::size_t end = part.find_first_of("=?");
        std::string_view suffix;
        if (end != std::string_view::npos) {
            std::string_view rest = part.substr(end);
            suffix = rest.starts_with("=?") ? rest.substr(0, 2) : rest.substr(0, 1);
        }
        names.push_back({trimmed(part.substr(0, end)), suffix});
        if (semicolon == std::string_view::npos) {
            break;
        }
        command.remove_prefix(semicolon + 1);
    }
    return names;
}

// Reports without a "+" or "^" of their own: "RING" (V.250); "RDY" after a restart (Quectel,
// ModemManager src/plugins/quectel/mm-shared-quectel.c); "PB DONE" and "SMS DONE" when the SIM's
// phonebook and messages are loaded (SIMCom, ModemManager
// src/plugins/simtech/mm-broadband-modem-simtech.c).
constexpr std::array<std::string_view, 4> kBareReports{"RING", "RDY", "PB DONE", "SMS DONE"};

bool isRegistrationName(std::string_view name) {
    return equalsIgnoringCase(name, "+CREG") || equalsIgnoringCase(name, "+CGREG") ||
           equalsIgnoringCase(name, "+CEREG");
}

// The raw fields after the colon, split at commas outside quotes (quotes kept).
std::vector<std::string_view> rawFields(std::string_view line) {
    std::vector<std::string_view> fields;
    std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) {
        return fields;
    }
    line.remove_prefix(colon + 1);
    bool quoted = false;
    std::size_t start = 0;
    for (std::size_t i = 0; i <= line.size(); ++i) {
        if (i == line.size() || (line[i] == ',' && !quoted)) {
            fields.push_back(trimmed(line.substr(start, i - start)));
            start = i + 1;
        } else if (line[i] == '"') {
            quoted = !quoted;
        }
    }
    return fields;
}

// Whether a "+CREG:" line answers the command that asked with `suffix`. The query "?" answers
// "n,stat[,lac,ci[,act]]"; the unsolicited report is "stat" or "stat,lac,ci[,act]", where lac is
// quoted or a hex code of several digits, never a one- or two-digit stat (ModemManager
// src/tests/test-modem-helpers.c: test_creg2_mercury_unsolicited "1,84CD,00D30156",
// test_creg2_leading_zeros_unsolicited "001,\"0001\",\"0010\",000",
// test_creg2_no_leading_zeros_unsolicited "1,0001,0010,0",
// test_creg2_xu870_unsolicited_unregistered "2,,"; the six-field Samsung S8500 form is a report
// there too). A set command answers no such line; the test command "=?" answers its ranges.
bool isRegistrationAnswer(std::string_view line, std::string_view suffix) {
    if (suffix == "=?") {
        return true;
    }
    if (suffix != "?") {
        return false;
    }
    std::vector<std::string_view> fields = rawFields(line);
    if (fields.size() < 2 || fields.size() == 3 || fields.size() > 5) {
        return false;
    }
    std::string_view second = fields[1];
    if (second.size() > 2 || (!second.empty() && second.front() == '"')) {
        return false;
    }
    return std::all_of(second.begin(), second.end(),
                       [](char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; });
}

}  // namespace

std::string AtResponse::firstValue() const {
    if (lines.empty()) {
        return {};
    }
    std::string_view line = lines.front();
    // "+CGMR: x", "^ICCID: x", "ICCID: x": a name without blanks before the colon is a label.
    std::size_t colon = line.find(':');
    if (colon != std::string_view::npos && colon > 0 &&
        std::all_of(line.begin(), line.begin() + static_cast<std::ptrdiff_t>(colon), [](char c) {
            return std::isalnum(static_cast<unsigned char>(c)) || isReportPrefix(c);
        })) {
        line.remove_prefix(colon + 1);
    }
    line = trimmed(line);
    if (line.size() >= 2 && line.front() == '"' && line.back() == '"') {
        line = line.substr(1, line.size() - 2);
    }
    return std::string(line);
}

void AtResponseReader::begin(std::string command) {
    command_ = std::move(command);
    lineBeforeCommand_ = !line_.empty() || lineGarbled_;
    inFlight_ = true;
    echoSeen_ = false;
    unsolicited_ = 0;
    response_ = AtResponse();
}

void AtResponseReader::standBy() {
    lineBeforeCommand_ = lineBeforeCommand_ || !line_.empty() || lineGarbled_;
    inFlight_ = false;
}

bool AtResponseReader::feed(const char* data, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) {
        take(static_cast<unsigned char>(data[i]));
    }
    return complete();
}

void AtResponseReader::take(unsigned char c) {
    if (c == '\r' || c == '\n') {
        endLine();
        return;
    }
    if (line_.empty() && !lineGarbled_ && (c < 0x20 || c == 0x7F || c >= 0xF8)) {
        return;  // noise before a line's first character: NUL and 0xFF bursts, stray controls
    }
    if (c == 0x1B || c >= 0xF8) {
        lineGarbled_ = true;  // terminal escapes and bytes that are not even UTF-8
        return;
    }
    if (line_.size() >= kMaxLineLength) {
        return;  // past the bound, the rest of the line is dropped
    }
    char text = '?';
    if (c >= 0x20 && c < 0x7F) {
        text = static_cast<char>(c);
    } else if (c == '\t') {
        text = ' ';
    } else if (c == 0x00) {
        text = '@';  // GSM 7-bit alphabet (27.005 "GSM" character set)
    } else if (c == 0x02) {
        text = '$';
    } else if (c == 0x11) {
        text = '_';
    }
    line_.push_back(text);
}

void AtResponseReader::endLine() {
    std::string line(trimmed(line_));
    bool garbled = lineGarbled_;
    bool before = lineBeforeCommand_;
    line_.clear();
    lineGarbled_ = false;
    lineBeforeCommand_ = false;
    if (line.empty() && !garbled) {
        return;
    }
    if (garbled || before || !inFlight_) {
        ++unsolicited_;
        return;
    }
    AtFinal final = finalResultOf(line);
    if (final != AtFinal::None) {
        response_.final = final;
        response_.finalLine = std::move(line);
        inFlight_ = false;
        return;
    }
    if (!echoSeen_ && response_.lines.empty() && equalsIgnoringCase(line, trimmed(command_))) {
        echoSeen_ = true;
        return;
    }
    if (isUnsolicited(line, command_)) {
        ++unsolicited_;
        return;
    }
    if (response_.lines.size() < kMaxLines) {
        response_.lines.push_back(std::move(line));
    }
}

AtFinal AtResponseReader::finalResultOf(std::string_view line) {
    line = trimmed(line);
    static constexpr std::array<std::pair<std::string_view, AtFinal>, 9> kExact{{
        {"OK", AtFinal::Ok},
        {"ERROR", AtFinal::Error},
        {"COMMAND NOT SUPPORT", AtFinal::Error},
        {"TOO MANY PARAMETERS", AtFinal::Error},
        {"NO CARRIER", AtFinal::NoCarrier},
        {"BUSY", AtFinal::Busy},
        {"NO ANSWER", AtFinal::NoAnswer},
        {"NO DIALTONE", AtFinal::NoDialtone},
        {"CONNECT", AtFinal::Connect},
    }};
    for (const auto& [text, final] : kExact) {
        if (line == text) {
            return final;
        }
    }
    if (line.starts_with("+CME ERROR:")) {
        return AtFinal::CmeError;
    }
    if (line.starts_with("+CMS ERROR:")) {
        return AtFinal::CmsError;
    }
    if (line.starts_with("CONNECT ")) {
        return AtFinal::Connect;
    }
    return AtFinal::None;
}

bool AtResponseReader::isUnsolicited(std::string_view line, std::string_view command) {
    line = trimmed(line);
    for (std::string_view bare : kBareReports) {
        if (line == bare) {
            return true;
        }
    }
    if (line.empty() || !isReportPrefix(line.front())) {
        return false;
    }
    std::string_view name = reportName(line);
    for (const CommandName& asked : commandNames(command)) {
        if (!equalsIgnoringCase(name, asked.name)) {
            continue;
        }
        if (isRegistrationName(name)) {
            return !isRegistrationAnswer(line, asked.suffix);
        }
        return false;
    }
    return true;
}

}  // namespace qv
