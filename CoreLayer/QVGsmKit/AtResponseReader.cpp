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

// The names a command asks for: "+CREG" of "AT+CREG?", "+CGMI" and "+CGMM" of "AT+CGMI;+CGMM".
std::vector<std::string_view> commandNames(std::string_view command) {
    std::vector<std::string_view> names;
    if (startsWithIgnoringCase(command, "AT")) {
        command.remove_prefix(2);
    }
    while (!command.empty()) {
        std::size_t semicolon = command.find(';');
        std::string_view part = command.substr(0, semicolon);
        std::size_t end = part.find_first_of("=?");
        names.push_back(trimmed(part.substr(0, end)));
        if (semicolon == std::string_view::npos) {
            break;
        }
        command.remove_prefix(semicolon + 1);
    }
    return names;
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
    line_.clear();
    lineGarbled_ = false;
    echoSeen_ = false;
    unsolicited_ = 0;
    response_ = AtResponse();
}

bool AtResponseReader::feed(const char* data, std::size_t size) {
    for (std::size_t i = 0; i < size && !complete(); ++i) {
        unsigned char c = static_cast<unsigned char>(data[i]);
        if (c == '\r' || c == '\n') {
            endLine();
        } else if ((c < 0x20 && c != '\t') || c == 0x7F || c >= 0xF8) {
            // Control characters and bytes that are not even UTF-8 mark line noise.
            lineGarbled_ = true;
        } else if (line_.size() < kMaxLineLength) {
            line_.push_back(c >= 0x20 && c < 0x7F ? static_cast<char>(c) : '?');
        }  // else: past the bound, the rest of the line is dropped
    }
    return complete();
}

void AtResponseReader::endLine() {
    std::string line(trimmed(line_));
    bool garbled = lineGarbled_;
    line_.clear();
    lineGarbled_ = false;
    if (garbled) {
        ++unsolicited_;
        return;
    }
    if (line.empty()) {
        return;
    }
    AtFinal final = finalResultOf(line);
    if (final != AtFinal::None) {
        response_.final = final;
        response_.finalLine = std::move(line);
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
    if (line == "RING") {
        return true;
    }
    if (line.empty() || !isReportPrefix(line.front())) {
        return false;
    }
    std::string_view name = reportName(line);
    for (std::string_view asked : commandNames(command)) {
        if (equalsIgnoringCase(name, asked)) {
            return false;
        }
    }
    return true;
}

}  // namespace qv
