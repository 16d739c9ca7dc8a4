#include "Regex.h"

#include <unicode/regex.h>
#include <unicode/unistr.h>
#include <unicode/ustring.h>

#include <limits>
#include <vector>

namespace qv {

struct Regex::Impl {
    std::unique_ptr<icu::RegexPattern> pattern;
};

namespace {

// Strict conversion: ICU's fromUTF8 would quietly replace bad bytes, which could make a subject
// match that is not the text we were given.
bool toUnicode(const std::string& utf8, icu::UnicodeString& out) {
    if (utf8.size() > static_cast<std::size_t>(std::numeric_limits<int32_t>::max() / 2)) {
        return false;
    }
    UErrorCode status = U_ZERO_ERROR;
    int32_t length = 0;
    u_strFromUTF8(nullptr, 0, &length, utf8.data(), static_cast<int32_t>(utf8.size()), &status);
    if (status != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(status)) {
        return false;
    }
    std::vector<UChar> units(static_cast<std::size_t>(length) + 1);
    status = U_ZERO_ERROR;
    u_strFromUTF8(units.data(), static_cast<int32_t>(units.size()), &length, utf8.data(),
                  static_cast<int32_t>(utf8.size()), &status);
    if (U_FAILURE(status)) {
        return false;
    }
    out = icu::UnicodeString(units.data(), length);
    return true;
}

}  // namespace

Regex::~Regex() = default;

std::shared_ptr<const Regex> Regex::compile(const std::string& pattern, bool caseInsensitive,
                                            std::string* error) {
    icu::UnicodeString text;
    if (!toUnicode(pattern, text)) {
        if (error != nullptr) {
            *error = "the pattern is not valid UTF-8";
        }
        return nullptr;
    }
    UParseError parseError{};
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::RegexPattern> compiled(icu::RegexPattern::compile(
        text, caseInsensitive ? UREGEX_CASE_INSENSITIVE : 0, parseError, status));
    if (U_FAILURE(status) || !compiled) {
        if (error != nullptr) {
            *error = std::string(u_errorName(status)) + " at offset " +
                     std::to_string(parseError.offset);
        }
        return nullptr;
    }
    std::shared_ptr<Regex> regex(new Regex());
    regex->impl_ = std::make_unique<Impl>();
    regex->impl_->pattern = std::move(compiled);
    regex->pattern_ = pattern;
    return regex;
}

Regex::Result Regex::matchesWhole(const std::string& subject) const {
    icu::UnicodeString text;
    if (!toUnicode(subject, text)) {
        return Result::Error;
    }
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::RegexMatcher> matcher(impl_->pattern->matcher(text, status));
    if (U_FAILURE(status) || !matcher) {
        return Result::Error;
    }
    matcher->setTimeLimit(kTimeLimitSteps, status);
    bool matched = matcher->matches(status);
    if (U_FAILURE(status)) {
        return Result::Error;
    }
    return matched ? Result::Match : Result::NoMatch;
}

}  // namespace qv
