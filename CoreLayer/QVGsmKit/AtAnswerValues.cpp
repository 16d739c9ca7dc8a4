#include "AtAnswerValues.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <vector>

#include "Foundation/HexDigit.h"

namespace qv {

namespace {

std::string_view stripped(std::string_view text) {
    auto blank = [](char c) { return c == ' ' || c == '"'; };
    while (!text.empty() && blank(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && blank(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

bool allDigits(std::string_view text) {
    return std::all_of(text.begin(), text.end(),
                       [](char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; });
}

void appendUtf8(std::string& out, std::uint32_t code) {
    if (code < 0x80) {
        out.push_back(static_cast<char>(code));
    } else if (code < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (code >> 6)));
        out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
    } else if (code < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (code >> 12)));
        out.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (code >> 18)));
        out.push_back(static_cast<char>(0x80 | ((code >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
    }
}

std::optional<std::vector<std::uint32_t>> hexUnits(std::string_view hex) {
    if (hex.empty() || hex.size() % 4 != 0) {
        return std::nullopt;
    }
    std::vector<std::uint32_t> units;
    for (std::size_t i = 0; i < hex.size(); i += 4) {
        std::uint32_t unit = 0;
        for (std::size_t j = 0; j < 4; ++j) {
            int digit = hexDigitValue(hex[i + j]);
            if (digit < 0) {
                return std::nullopt;
            }
            unit = unit * 16 + static_cast<std::uint32_t>(digit);
        }
        units.push_back(unit);
    }
    return units;
}

}  // namespace

std::optional<std::string> checkedImei(std::string_view value, std::string* why) {
    value = stripped(value);
    value = stripped(value.substr(0, value.find(',')));
    if (value.size() < 14 || value.size() > 16 || !allDigits(value)) {
        *why = "not an IMEI (14 to 16 digits): \"" + std::string(value.substr(0, 64)) + "\"";
        return std::nullopt;
    }
    return std::string(value);
}

std::optional<std::string> checkedIccid(std::string_view value, std::string* why) {
    value = stripped(value);
    std::string digits;
    for (std::size_t i = 0; i < value.size(); ++i) {
        char c = static_cast<char>(std::toupper(static_cast<unsigned char>(value[i])));
        bool ok = std::isdigit(static_cast<unsigned char>(c)) ||
                  (i >= 6 && hexDigitValue(c) >= 0) || c == 'F';
        if (!ok || digits.size() >= 20) {
            *why = "not an ICCID: \"" + std::string(value.substr(0, 64)) + "\"";
            return std::nullopt;
        }
        digits.push_back(c);
    }
    if (digits.size() == 20 && digits.starts_with("98")) {
        for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
            std::swap(digits[i], digits[i + 1]);
        }
    }
    if (!digits.empty() && digits.back() == 'F') {
        digits.pop_back();
    }
    if (digits.size() < 19 || digits.size() > 20 || !digits.starts_with("89") ||
        digits.find('F') != std::string::npos) {
        *why =
            "not an ICCID (19 or 20 digits from 89): \"" + std::string(value.substr(0, 64)) + "\"";
        return std::nullopt;
    }
    return digits;
}

std::optional<std::string> iccidFromCrsmLine(std::string_view line, std::string* why) {
    std::size_t colon = line.find(':');
    if (!line.starts_with("+CRSM") || colon == std::string_view::npos) {
        *why = "not a +CRSM answer";
        return std::nullopt;
    }
    line.remove_prefix(colon + 1);
    std::vector<std::string_view> fields;
    while (true) {
        std::size_t comma = line.find(',');
        fields.push_back(stripped(line.substr(0, comma)));
        if (comma == std::string_view::npos || fields.size() > 3) {
            break;
        }
        line.remove_prefix(comma + 1);
    }
    if (fields.size() != 3 || fields[0].empty() || fields[0].size() > 3 || !allDigits(fields[0]) ||
        fields[1].empty() || fields[1].size() > 3 || !allDigits(fields[1])) {
        *why = "a +CRSM answer without status words and data";
        return std::nullopt;
    }
    int sw1 = std::stoi(std::string(fields[0]));
    int sw2 = std::stoi(std::string(fields[1]));
    if (!((sw1 == 0x90 && sw2 == 0) || sw1 == 0x91 || sw1 == 0x92 || sw1 == 0x9F)) {
        *why = "the SIM refused to read EF-ICCID (sw1 " + std::to_string(sw1) + ", sw2 " +
               std::to_string(sw2) + ")";
        return std::nullopt;
    }
    std::string hex(fields[2]);
    if (hex.size() != 20) {
        *why = "EF-ICCID is not 10 bytes: \"" + hex.substr(0, 64) + "\"";
        return std::nullopt;
    }
    // The file holds each byte's two digits swapped: an ICCID "89..." is stored "98...".
    if (!hex.starts_with("98")) {
        *why = "EF-ICCID does not hold an ICCID: \"" + hex + "\"";
        return std::nullopt;
    }
    return checkedIccid(hex, why);
}

std::optional<std::string> decodedUcs2Hex(std::string_view hex) {
    std::optional<std::vector<std::uint32_t>> units = hexUnits(hex);
    if (!units) {
        return std::nullopt;
    }
    std::string out;
    for (std::size_t i = 0; i < units->size(); ++i) {
        std::uint32_t unit = (*units)[i];
        if (unit < 0x20 || (unit >= 0x7F && unit < 0xA0) || (unit >= 0xDC00 && unit < 0xE000)) {
            return std::nullopt;
        }
        if (unit >= 0xD800 && unit < 0xDC00) {
            if (i + 1 >= units->size() || (*units)[i + 1] < 0xDC00 || (*units)[i + 1] >= 0xE000) {
                return std::nullopt;
            }
            unit = 0x10000 + ((unit - 0xD800) << 10) + ((*units)[++i] - 0xDC00);
        }
        appendUtf8(out, unit);
    }
    return out;
}

std::optional<std::string> operatorName(std::string_view raw, AtCharset charset, std::string* why) {
    raw = stripped(raw);
    std::string name(raw);
    if (charset == AtCharset::Ucs2) {
        if (std::optional<std::string> decoded = decodedUcs2Hex(raw)) {
            name = *decoded;
        }
    } else if (charset == AtCharset::Unknown) {
        std::optional<std::vector<std::uint32_t>> units = hexUnits(raw);
        bool latin = units && std::all_of(units->begin(), units->end(), [](std::uint32_t unit) {
                         return (unit >= 0x20 && unit < 0x7F) || (unit >= 0xA0 && unit <= 0xFF);
                     });
        if (latin) {
            name = *decodedUcs2Hex(raw);
        }
    }
    if (name.empty()) {
        *why = "no operator name";
        return std::nullopt;
    }
    std::string lower = name;
    std::transform(lower.begin(), lower.end(), lower.begin(), [](char c) {
        return static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    });
    if (lower == "unknown") {
        *why = "the modem does not know the operator's name";
        return std::nullopt;
    }
    return name;
}

std::optional<int> signalQuality(int rssi, std::string* why) {
    if (rssi >= 0 && rssi <= 31) {
        return rssi;
    }
    *why = rssi == 99 ? "signal quality not known (+CSQ 99)"
                      : "signal quality out of range: " + std::to_string(rssi);
    return std::nullopt;
}

}  // namespace qv
