#include "Regex.h"

#include <unicode/regex.h>
#include <unicode/unistr.h>
#include <unicode/ustring.h>

#include <algorithm>
#include <limits>
#include <list>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

namespace qv {

struct Regex::Impl {
    std::unique_ptr<icu::RegexPattern> pattern;
    // One matcher, reset for each subject instead of built each time; the lock lets threads
    // share a compiled pattern.
    std::mutex mutex;
    std::unique_ptr<icu::RegexMatcher> matcher;
};

namespace {

// Strict conversion: ICU's fromUTF8 would quietly replace bad bytes, which could make a subject
// match that is not the text we were given.
bool isASCII(const std::string& text) {
    return std::all_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

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

// Least recently used patterns leave first. A pattern that does not compile is remembered too,
// with its error, so a bad rules file is not compiled again at every check.
class RegexCache {
  public:
    struct Compiled {
        std::shared_ptr<const Regex> regex;
        std::string error;
    };

    std::optional<Compiled> find(const std::string& key) {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = index_.find(key);
        if (it == index_.end()) {
            return std::nullopt;
        }
        order_.splice(order_.begin(), order_, it->second);
        return it->second->second;
    }

    void insert(const std::string& key, Compiled compiled) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (index_.count(key) != 0) {
            return;
        }
        order_.emplace_front(key, std::move(compiled));
        index_[key] = order_.begin();
        if (order_.size() > kCapacity) {
            index_.erase(order_.back().first);
            order_.pop_back();
        }
    }

  private:
    static constexpr std::size_t kCapacity = 128;
    std::mutex mutex_;
    std::list<std::pair<std::string, Compiled>> order_;
    std::unordered_map<std::string, std::list<std::pair<std::string, Compiled>>::iterator> index_;
};

RegexCache& regexCache() {
    static RegexCache cache;
    return cache;
}

}  // namespace

Regex::~Regex() = default;

std::shared_ptr<const Regex> Regex::compileCached(const std::string& pattern, bool caseInsensitive,
                                                  std::string* error) {
    std::string key = (caseInsensitive ? "i:" : "s:") + pattern;
    auto cached = regexCache().find(key);
    if (!cached) {
        RegexCache::Compiled compiled;
        compiled.regex = compile(pattern, caseInsensitive, &compiled.error);
        regexCache().insert(key, compiled);
        cached = std::move(compiled);
    }
    if (!cached->regex && error != nullptr) {
        *error = cached->error;
    }
    return cached->regex;
}

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
    // Short ASCII subjects (device paths, model names) are widened into a buffer on the stack,
    // which the matcher reads in place; other text goes through the strict conversion.
    constexpr std::size_t kShortSubject = 256;
    char16_t wide[kShortSubject];
    icu::UnicodeString text;
    if (subject.size() <= kShortSubject && isASCII(subject)) {
        std::copy(subject.begin(), subject.end(), wide);
        text = icu::UnicodeString(false, wide, static_cast<int32_t>(subject.size()));
    } else if (!toUnicode(subject, text)) {
        return Result::Error;
    }
    UErrorCode status = U_ZERO_ERROR;
    std::lock_guard<std::mutex> lock(impl_->mutex);
    if (!impl_->matcher) {
        std::unique_ptr<icu::RegexMatcher> matcher(impl_->pattern->matcher(status));
        if (U_FAILURE(status) || !matcher) {
            return Result::Error;
        }
        matcher->setTimeLimit(kTimeLimitSteps, status);
        if (U_FAILURE(status)) {
            return Result::Error;
        }
        impl_->matcher = std::move(matcher);
    }
    icu::RegexMatcher& matcher = *impl_->matcher;
    matcher.reset(text);
    bool matched = matcher.matches(status);
    if (U_FAILURE(status)) {
        return Result::Error;
    }
    return matched ? Result::Match : Result::NoMatch;
}

}  // namespace qv
