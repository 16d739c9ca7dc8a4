#include "RulesCheck.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <string_view>

#include "Foundation/Format.h"
#include "Foundation/Regex.h"
#include "Foundation/StringCompare.h"

namespace qvdevice {

namespace {

enum class Kind { Integer, Flag, Text };

struct KnownKey {
    const char* name;
    Kind kind;
};

constexpr std::array<KnownKey, 12> kKnownKeys = {{
    {"QuorvelID", Kind::Integer},
    {"VendorID", Kind::Integer},
    {"ProductID", Kind::Integer},
    {"Allowed", Kind::Flag},
    {"GTCode", Kind::Text},
    {"ProductMarketingName", Kind::Text},
    {"ExcludedProductMarketingName", Kind::Text},
    {"ExcludedModelNamePattern", Kind::Text},
    {"AllowesDriverRequest", Kind::Text},
    {"DeviceName", Kind::Text},
    {"PreferredDataTransportInterfaceType", Kind::Text},
    {"FetchDeviceNameUsingCGMM", Kind::Flag},
}};

constexpr std::array<const char*, 3> kNamingKeys = {"QuorvelID", "VendorID", "ProductID"};

const char* typeName(const qv::Value& value) {
    switch (value.type()) {
        case qv::Value::Type::Nil:
            return "nil";
        case qv::Value::Type::String:
            return "string";
        case qv::Value::Type::Integer:
            return "integer";
        case qv::Value::Type::Real:
            return "real number";
        case qv::Value::Type::Boolean:
            return "boolean";
        case qv::Value::Type::Data:
            return "data";
        case qv::Value::Type::Date:
            return "date";
        case qv::Value::Type::Array:
            return "array";
        case qv::Value::Type::Dictionary:
            return "dictionary";
    }
    return "value";
}

std::size_t editDistance(std::string_view a, std::string_view b) {
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j) {
        row[j] = j;
    }
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            std::size_t above = row[j];
            row[j] =
                std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0u : 1u)});
            diagonal = above;
        }
    }
    return row[b.size()];
}

const KnownKey* knownKey(std::string_view name) {
    for (const KnownKey& key : kKnownKeys) {
        if (name == key.name) {
            return &key;
        }
    }
    return nullptr;
}

std::string suggestionFor(std::string_view name) {
    for (const KnownKey& key : kKnownKeys) {
        if (qv::caseInsensitiveEqual(name, key.name) || editDistance(name, key.name) <= 2) {
            return qv::format(" (did you mean \"%s\"?)", key.name);
        }
    }
    return "";
}

// A text that reads as a number in full ("4505", " -1"), not just by its leading digits.
bool isWholeNumberText(const std::string& text) {
    std::size_t i = text.find_first_not_of(" \t");
    if (i == std::string::npos) {
        return false;
    }
    if (text[i] == '+' || text[i] == '-') {
        ++i;
    }
    return i < text.size() && std::all_of(text.begin() + static_cast<std::ptrdiff_t>(i), text.end(),
                                          [](char c) { return c >= '0' && c <= '9'; });
}

class RuleChecker {
  public:
    RuleChecker(const qv::Array& rules, std::vector<std::string>& findings)
        : rules_(rules), findings_(findings) {}

    void check(std::size_t index) {
        index_ = index;
        const qv::Value& rule = rules_[index];
        if (!rule.isDictionary()) {
            report(qv::format("is a %s, not a dictionary: it is passed over", typeName(rule)));
            return;
        }
        for (const auto& [key, value] : *rule.asDictionary()) {
            const KnownKey* known = knownKey(key);
            if (known == nullptr) {
                report(qv::format("unknown key \"%@\"%@", key, suggestionFor(key)));
            } else {
                checkType(*known, value);
            }
        }
        checkReach(rule);
        checkPattern(rule);
        checkShadowing(rule);
    }

  private:
    void report(const std::string& text) {
        findings_.push_back(qv::format("rule %u: %@", static_cast<unsigned>(index_ + 1), text));
    }

    void checkType(const KnownKey& key, const qv::Value& value) {
        if (key.kind == Kind::Text) {
            if (!value.isString()) {
                report(
                    qv::format("\"%s\" should be a string, not a %s", key.name, typeName(value)));
            }
            return;
        }
        const bool fine = value.isInteger() || (key.kind == Kind::Flag && value.isBoolean()) ||
                          (value.isString() && isWholeNumberText(*value.asString()));
        if (!fine) {
            std::string shown =
                value.isString() ? "\"" + *value.asString() + "\"" : value.description();
            report(qv::format("\"%s\" is the %s %@, which reads as %lld", key.name, typeName(value),
                              shown, static_cast<long long>(value.intValue())));
        }
    }

    // Conditions under which a rule can never name a device.
    void checkReach(const qv::Value& rule) {
        for (const char* key : {"VendorID", "ProductID"}) {
            const qv::Value& id = rule[key];
            if (!id.isNil() && (id.integerValue() < 0 || id.integerValue() > 0xFFFF)) {
                report(qv::format("\"%s\" %lld is no USB ID (0 to 65535): the rule names no device",
                                  key, static_cast<long long>(id.integerValue())));
            }
        }
        const qv::Dictionary& dict = *rule.asDictionary();
        for (const char* key : {"ExcludedModelNamePattern", "AllowesDriverRequest"}) {
            if (dict.contains(key) && !dict.contains("VendorID")) {
                report(qv::format("\"%s\" without \"VendorID\" applies to vendor 0 only", key));
            }
        }
        for (const char* key : {"GTCode", "ProductMarketingName", "ExcludedProductMarketingName"}) {
            if (dict.contains(key) && !dict.contains("QuorvelID")) {
                report(qv::format(
                    "\"%s\" without \"QuorvelID\" applies to devices without a Quorvel ID only",
                    key));
            }
        }
        const std::string* request = rule["AllowesDriverRequest"].asString();
        if (request != nullptr && !qv::caseInsensitiveEqual(*request, "YES") &&
            !qv::caseInsensitiveEqual(*request, "NO")) {
            report(qv::format("\"AllowesDriverRequest\" \"%@\" reads as NO (only \"YES\" allows)",
                              *request));
        }
        const std::string* type = rule["PreferredDataTransportInterfaceType"].asString();
        if (type != nullptr && *type != "kEthernet" && *type != "kSerial") {
            report(qv::format(
                "\"PreferredDataTransportInterfaceType\" \"%@\" is neither kEthernet nor kSerial",
                *type));
        }
    }

    void checkPattern(const qv::Value& rule) {
        const std::string* pattern = rule["ExcludedModelNamePattern"].asString();
        std::string error;
        if (pattern != nullptr && !qv::Regex::compile(*pattern, false, &error)) {
            report(qv::format(
                "\"ExcludedModelNamePattern\" \"%@\" does not compile (%@): it excludes nothing",
                *pattern, error));
        }
    }

    // A rule that only names and allows or forbids never decides when an earlier rule already
    // allows every device it names: the allow test stops at the earlier rule.
    void checkShadowing(const qv::Value& rule) {
        const qv::Dictionary& dict = *rule.asDictionary();
        for (const auto& [key, value] : dict) {
            if (key != "Allowed" &&
                std::find_if(kNamingKeys.begin(), kNamingKeys.end(), [&](const char* naming) {
                    return key == naming;
                }) == kNamingKeys.end()) {
                return;  // the rule carries more than the allow decision
            }
        }
        for (std::size_t earlier = 0; earlier < index_; ++earlier) {
            const qv::Value& other = rules_[earlier];
            if (other.isDictionary() && allowsEverythingNamedBy(other, rule)) {
                report(qv::format(
                    "never decides: rule %u before it already allows every device it names",
                    static_cast<unsigned>(earlier + 1)));
                return;
            }
        }
    }

    static bool allowsEverythingNamedBy(const qv::Value& earlier, const qv::Value& later) {
        const qv::Dictionary& dict = *earlier.asDictionary();
        if (dict.contains("Allowed") && earlier["Allowed"].intValue() == 0) {
            return false;
        }
        for (const char* key : kNamingKeys) {
            if (dict.contains(key) && (!later.asDictionary()->contains(key) ||
                                       earlier[key].intValue() != later[key].intValue())) {
                return false;
            }
        }
        return true;
    }

    const qv::Array& rules_;
    std::vector<std::string>& findings_;
    std::size_t index_ = 0;
};

}  // namespace

std::vector<std::string> checkRules(const qv::Value& rules) {
    std::vector<std::string> findings;
    if (rules.isAbsent()) {
        return findings;
    }
    const qv::Array* list = rules.asArray();
    if (list == nullptr) {
        findings.push_back(qv::format("the root is a %s, not an array of rules: no rule applies",
                                      typeName(rules)));
        return findings;
    }
    RuleChecker checker(*list, findings);
    for (std::size_t i = 0; i < list->size(); ++i) {
        checker.check(i);
    }
    return findings;
}

}  // namespace qvdevice
