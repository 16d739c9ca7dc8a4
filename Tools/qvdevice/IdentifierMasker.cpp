#include "IdentifierMasker.h"

#include <algorithm>
#include <array>
#include <cctype>

namespace qvdevice {

namespace {

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

bool isHex(char c) {
    return std::isxdigit(static_cast<unsigned char>(c)) != 0;
}

bool isAlnum(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0;
}

bool allDigits(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), isDigit);
}

std::string lower(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

// The check digit that makes `body` followed by it pass the Luhn check.
char luhnCheckDigit(std::string_view body) {
    int sum = 0;
    bool twice = true;  // the digit left of the check digit is doubled
    for (auto it = body.rbegin(); it != body.rend(); ++it) {
        int digit = *it - '0';
        if (twice) {
            digit *= 2;
            digit = digit > 9 ? digit - 9 : digit;
        }
        sum += digit;
        twice = !twice;
    }
    return static_cast<char>('0' + (10 - sum % 10) % 10);
}

// Length of a MAC address ("00:1e:10:1f:00:00", also with '-') starting at `text`, or 0.
std::size_t macLength(std::string_view text) {
    constexpr std::size_t kLength = 17;
    if (text.size() < kLength) {
        return 0;
    }
    const char separator = text[2];
    if (separator != ':' && separator != '-') {
        return 0;
    }
    for (std::size_t i = 0; i < kLength; ++i) {
        bool ok = i % 3 == 2 ? text[i] == separator : isHex(text[i]);
        if (!ok) {
            return 0;
        }
    }
    if (text.size() > kLength && isAlnum(text[kLength])) {
        return 0;
    }
    return kLength;
}

}  // namespace

IdentifierMasker::IdentifierMasker(std::uint64_t key) : key_(key) {}

bool IdentifierMasker::luhnValid(std::string_view digits) {
    return digits.size() >= 2 && allDigits(digits) &&
           luhnCheckDigit(digits.substr(0, digits.size() - 1)) == digits.back();
}

bool IdentifierMasker::isIdentifierKey(std::string_view key) {
    const std::string name = lower(key);
    for (std::string_view part :
         {"serial", "imei", "imsi", "iccid", "msisdn", "phone", "mac", "address"}) {
        if (name.find(part) != std::string::npos) {
            return true;
        }
    }
    // udev's identity strings end in the device's serial number ("ID_SERIAL", "ID_SERIAL_SHORT"
    // are caught above; "ID_USB_SERIAL" too).
    return false;
}

std::uint64_t IdentifierMasker::draw(std::string_view original, int attempt) const {
    // FNV-1a over the key, the attempt and the value, then a final mix (splitmix64).
    std::uint64_t hash = 1469598103934665603ull;
    auto mix = [&hash](unsigned char byte) {
        hash ^= byte;
        hash *= 1099511628211ull;
    };
    for (int i = 0; i < 8; ++i) {
        mix(static_cast<unsigned char>(key_ >> (8 * i)));
    }
    mix(static_cast<unsigned char>(attempt));
    for (char c : original) {
        mix(static_cast<unsigned char>(c));
    }
    hash += 0x9e3779b97f4a7c15ull;
    hash = (hash ^ (hash >> 30)) * 0xbf58476d1ce4e5b9ull;
    hash = (hash ^ (hash >> 27)) * 0x94d049bb133111ebull;
    return hash ^ (hash >> 31);
}

std::string IdentifierMasker::remember(std::string_view original, std::string candidate) {
    masks_.emplace(std::string(original), candidate);
    used_.insert(candidate);
    return candidate;
}

std::string IdentifierMasker::maskDigits(std::string_view digits, bool keepLuhn,
                                         std::size_t keepPrefix) {
    if (auto known = masks_.find(digits); known != masks_.end()) {
        return known->second;
    }
    keepPrefix = std::min(keepPrefix, digits.size() > 3 ? digits.size() - 3 : std::size_t{0});
    std::string candidate;
    for (int attempt = 0; attempt < 64; ++attempt) {
        candidate.assign(digits.substr(0, keepPrefix));
        std::uint64_t bits = draw(digits, attempt);
        std::size_t end = keepLuhn ? digits.size() - 1 : digits.size();
        for (std::size_t i = keepPrefix; i < end; ++i) {
            if (bits < 10) {
                bits = draw(candidate, attempt + 1000 + static_cast<int>(i));
            }
            candidate += static_cast<char>('0' + bits % 10);
            bits /= 10;
        }
        if (keepLuhn) {
            candidate += luhnCheckDigit(candidate);
        }
        if (candidate != digits && used_.count(candidate) == 0) {
            break;
        }
    }
    return remember(digits, std::move(candidate));
}

std::string IdentifierMasker::maskCharacters(std::string_view value, std::size_t keepPrefix) {
    if (auto known = masks_.find(value); known != masks_.end()) {
        return known->second;
    }
    static constexpr std::string_view kDigits = "0123456789";
    static constexpr std::string_view kUpper = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";
    static constexpr std::string_view kLower = "abcdefghijklmnopqrstuvwxyz";
    // A hex string stays hex (MAC addresses, serials printed in hex).
    const bool hexOnly =
        std::all_of(value.begin(), value.end(), [](char c) { return isHex(c) || !isAlnum(c); });
    std::string candidate;
    for (int attempt = 0; attempt < 64; ++attempt) {
        candidate.assign(value);
        std::uint64_t bits = draw(value, attempt);
        int left = 10;
        for (std::size_t i = keepPrefix; i < candidate.size(); ++i) {
            char& c = candidate[i];
            if (!isAlnum(c)) {
                continue;
            }
            if (left-- == 0) {
                bits = draw(value, attempt + 1000 + static_cast<int>(i));
                left = 10;
            }
            unsigned pick = static_cast<unsigned>(bits % 64);
            bits /= 64;
            if (isDigit(c)) {
                c = kDigits[pick % 10];
            } else if (hexOnly) {
                c = std::isupper(static_cast<unsigned char>(c)) ? "ABCDEF"[pick % 6]
                                                                : "abcdef"[pick % 6];
            } else {
                c = std::isupper(static_cast<unsigned char>(c)) ? kUpper[pick % 26]
                                                                : kLower[pick % 26];
            }
        }
        if (candidate != value && used_.count(candidate) == 0) {
            break;
        }
    }
    return remember(value, std::move(candidate));
}

std::string IdentifierMasker::maskWhole(std::string_view value) {
    if (value.empty()) {
        return std::string();
    }
    if (allDigits(value)) {
        // The same digits masked as text and as a whole value give the same mask.
        return maskText(value);
    }
    return maskCharacters(value, 0);
}

std::string IdentifierMasker::maskImei(std::string_view digits) {
    if (!allDigits(digits) || digits.size() < 14 || digits.size() > 16) {
        return maskText(digits);
    }
    return maskDigits(digits, digits.size() == 15, 8);
}

std::string IdentifierMasker::maskText(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    const bool ownNumbers = text.find("+CNUM:") != std::string_view::npos;
    std::size_t i = 0;
    while (i < text.size()) {
        const bool atWordStart = i == 0 || !isAlnum(text[i - 1]);
        if (atWordStart) {
            if (std::size_t mac = macLength(text.substr(i))) {
                out += maskCharacters(text.substr(i, mac), 0);
                i += mac;
                continue;
            }
        }
        if (!isHex(text[i]) || !atWordStart) {
            out += text[i++];
            continue;
        }
        std::size_t digitEnd = i;
        while (digitEnd < text.size() && isDigit(text[digitEnd])) {
            ++digitEnd;
        }
        std::size_t hexEnd = i;
        while (hexEnd < text.size() && isHex(text[hexEnd])) {
            ++hexEnd;
        }
        const std::size_t digits = digitEnd - i;
        const std::size_t hexes = hexEnd - i;
        const bool digitRunEnds = digitEnd == text.size() || !isAlnum(text[digitEnd]);
        const bool hexRunEnds = hexEnd == text.size() || !isAlnum(text[hexEnd]);
        const bool afterPlus = i > 0 && text[i - 1] == '+';
        std::string_view run = text.substr(i, digits);
        if (hexRunEnds && hexes >= 18 && hexes <= 22 && text.substr(i, 2) == "89") {
            // ICCID: "89", the country and the issuer kept; the check digit kept valid when the
            // card had one (some modems print the ICCID with a trailing 'F' instead).
            std::string_view iccid = text.substr(i, hexes);
            out += allDigits(iccid) ? maskDigits(iccid, luhnValid(iccid), 6)
                                    : maskCharacters(iccid, 6);
            i = hexEnd;
        } else if (digits == 0) {
            out += text[i++];
        } else if (!digitRunEnds) {
            // A word of digits and letters ("E1750", "11.126a"): not an identifier.
            while (i < text.size() && isAlnum(text[i])) {
                out += text[i++];
            }
        } else if (afterPlus && digits >= 6 && digits <= 15) {
            out += maskDigits(run, false, 2);  // a phone number: its country code kept
            i = digitEnd;
        } else if (digits == 15 &&
                   (luhnValid(run) || text.substr(0, i).find("IMEI") != std::string_view::npos)) {
            out += maskDigits(run, true, 8);  // IMEI: the type allocation code kept
            i = digitEnd;
        } else if (digits >= 14 && digits <= 16) {
            out += maskDigits(run, false, digits == 15 ? 5 : 8);  // IMSI (MCC, MNC kept), IMEISV
            i = digitEnd;
        } else if (digits >= 18 && digits <= 22) {
            out += maskDigits(run, false, 2);
            i = digitEnd;
        } else if (ownNumbers && digits >= 6) {
            out += maskDigits(run, false, 0);
            i = digitEnd;
        } else {
            out += run;
            i = digitEnd;
        }
    }
    return out;
}

qv::Value IdentifierMasker::maskValue(const qv::Value& value, std::string_view key) {
    return maskValueAt(value, key, 0);
}

qv::Value IdentifierMasker::maskValueAt(const qv::Value& value, std::string_view key, int depth) {
    if (depth > kMaxDepth) {
        return value;
    }
    if (const std::string* text = value.asString()) {
        if (lower(key).find("imei") != std::string::npos) {
            return qv::Value(maskImei(*text));
        }
        return qv::Value(isIdentifierKey(key) ? maskWhole(*text) : maskText(*text));
    }
    if (const qv::Data* data = value.asData(); data != nullptr && isIdentifierKey(key)) {
        // A MAC address kept as bytes: each byte replaced, the length kept.
        std::string bytes(data->begin(), data->end());
        std::string hex;
        static constexpr char kHex[] = "0123456789abcdef";
        for (unsigned char byte : bytes) {
            hex += kHex[byte >> 4];
            hex += kHex[byte & 15];
        }
        std::string masked = maskCharacters(hex, 0);
        qv::Data out;
        for (std::size_t i = 0; i + 1 < masked.size(); i += 2) {
            out.push_back(static_cast<std::uint8_t>(std::stoi(masked.substr(i, 2), nullptr, 16)));
        }
        return qv::Value(std::move(out));
    }
    if (const qv::Array* array = value.asArray()) {
        qv::Array out;
        for (const auto& item : *array) {
            out.push_back(maskValueAt(item, key, depth + 1));
        }
        return qv::Value(std::move(out));
    }
    if (const qv::Dictionary* dictionary = value.asDictionary()) {
        qv::Dictionary out;
        for (const auto& [name, item] : *dictionary) {
            out.set(name, maskValueAt(item, name, depth + 1));
        }
        return qv::Value(std::move(out));
    }
    return value;
}

}  // namespace qvdevice
