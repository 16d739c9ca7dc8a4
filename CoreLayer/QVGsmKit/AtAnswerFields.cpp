#include "AtAnswerFields.h"

#include <array>

namespace qv {

namespace {

std::string trimmedField(std::string field) {
    while (!field.empty() && field.front() == ' ') {
        field.erase(0, 1);
    }
    while (!field.empty() && field.back() == ' ') {
        field.pop_back();
    }
    if (field.size() >= 2 && field.front() == '"' && field.back() == '"') {
        field = field.substr(1, field.size() - 2);
    }
    return field;
}

}  // namespace

std::vector<std::string> atFields(std::string_view line) {
    if (!line.empty() && line.front() != '"') {
        std::size_t colon = line.find(':');
        std::size_t quote = line.find('"');
        if (colon != std::string_view::npos && (quote == std::string_view::npos || colon < quote)) {
            line.remove_prefix(colon + 1);
        }
    }
    std::vector<std::string> fields;
    std::string field;
    bool quoted = false;
    for (char c : line) {
        if (c == '"') {
            quoted = !quoted;
            field.push_back(c);
        } else if (c == ',' && !quoted) {
            fields.push_back(trimmedField(std::move(field)));
            field.clear();
        } else {
            field.push_back(c);
        }
    }
    fields.push_back(trimmedField(std::move(field)));
    return fields;
}

std::optional<int> atIntegerField(const std::vector<std::string>& fields, std::size_t index) {
    if (index >= fields.size() || fields[index].empty() || fields[index].size() > 9) {
        return std::nullopt;
    }
    int value = 0;
    for (char c : fields[index]) {
        if (c < '0' || c > '9') {
            return std::nullopt;
        }
        value = value * 10 + (c - '0');
    }
    return value;
}

std::string radioAccessTechnologyName(int act) {
    static constexpr std::array<const char*, 8> kNames{"GSM",   "GSM Compact", "UMTS", "EDGE",
                                                       "HSDPA", "HSUPA",       "HSPA", "LTE"};
    if (act < 0 || static_cast<std::size_t>(act) >= kNames.size()) {
        return {};
    }
    return kNames[static_cast<std::size_t>(act)];
}

}  // namespace qv
