#include "Regex.h"

#include <unicode/regex.h>
#include <unicode/unistr.h>
#include <unicode/ustring.h>

#include <algorithm>
#include <limits>
#include <list>
#include <mutex>
#include <string_view>
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
    // Text every whole match starts with (see literalPrefix); empty when none is known.
    std::string prefix;
    // The prefix is the whole pattern: a subject matches exactly when it equals the prefix.
    bool literal = false;
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

// Escaped characters that stand for themselves.
bool isEscapedLiteral(char c) {
    return std::string_view(".-/_:,+*?()[]{}|^$\\").find(c) != std::string_view::npos;
}

bool isPlainLiteral(char c) {
    const auto u = static_cast<unsigned char>(c);
    return (u >= 'a' && u <= 'z') || (u >= 'A' && u <= 'Z') || (u >= '0' && u <= '9') ||
           std::string_view("/_-:,@=").find(c) != std::string_view::npos;
}

// The literal text a case-sensitive pattern starts with, so that a subject that does not start
// with it is refused without running the matcher ("/dev/cu\.ttyACM[0-9]+" gives
// "/dev/cu.ttyACM"). Conservative: plain ASCII letters, digits and a few punctuation marks, and
// escaped punctuation; it ends at the first other character, and a character that a quantifier
// follows is left out. A pattern with "|" anywhere has no prefix (an alternative may start
// differently). `whole` tells whether the prefix is all of the pattern.
std::string literalPrefix(std::string_view pattern, bool& whole) {
    std::string prefix;
    whole = false;
    if (pattern.find('|') != std::string_view::npos) {
        return prefix;
    }
    std::size_t i = 0;
    while (i < pattern.size()) {
        char literal = 0;
        std::size_t next = i;
        if (isPlainLiteral(pattern[i])) {
            literal = pattern[i];
            next = i + 1;
        } else if (pattern[i] == '\\' && i + 1 < pattern.size() &&
                   isEscapedLiteral(pattern[i + 1])) {
            literal = pattern[i + 1];
            next = i + 2;
        } else {
            break;
        }
        if (next < pattern.size() &&
            std::string_view("*+?{").find(pattern[next]) != std::string_view::npos) {
            break;
        }
        prefix += literal;
        i = next;
    }
    whole = i == pattern.size();
    return prefix;
}

// Least recently used patterns leave first. A pattern that does not compile is remembered too,
// with its error, so a bad rules file is not compiled again at every check. Looked up by the
// pattern itself, one index per letter-case mode, so a hit builds no key.
class RegexCache {
  public:
    struct Compiled {
        std::shared_ptr<const Regex> regex;
        std::string error;
    };

    // Whether the pattern is known; if so, its regex (nullptr when it does not compile) and,
    // when asked, its error.
    bool find(bool caseInsensitive, const std::string& pattern, std::shared_ptr<const Regex>& regex,
              std::string* error) {
        std::lock_guard<std::mutex> lock(mutex_);
        Index& index = index_[caseInsensitive ? 1 : 0];
        auto it = index.find(pattern);
        if (it == index.end()) {
            return false;
        }
        if (it->second != order_.begin()) {
            order_.splice(order_.begin(), order_, it->second);
        }
        const Compiled& compiled = it->second->compiled;
        regex = compiled.regex;
        if (error != nullptr && !compiled.regex) {
            *error = compiled.error;
        }
        return true;
    }

    void insert(bool caseInsensitive, const std::string& pattern, Compiled compiled) {
        std::lock_guard<std::mutex> lock(mutex_);
        Index& index = index_[caseInsensitive ? 1 : 0];
        if (index.count(pattern) != 0) {
            return;
        }
        order_.push_front(Slot{caseInsensitive, pattern, std::move(compiled)});
        index.emplace(pattern, order_.begin());
        if (order_.size() > kCapacity) {
            const Slot& last = order_.back();
            index_[last.caseInsensitive ? 1 : 0].erase(last.pattern);
            order_.pop_back();
        }
    }

  private:
    struct Slot {
        bool caseInsensitive;
        std::string pattern;
        Compiled compiled;
    };
    using Index = std::unordered_map<std::string, std::list<Slot>::iterator>;
    static constexpr std::size_t kCapacity = 128;
    std::mutex mutex_;
    std::list<Slot> order_;
    Index index_[2];
};

RegexCache& regexCache() {
    static RegexCache cache;
    return cache;
}

}  // namespace

Regex::~Regex() = default;

std::shared_ptr<const Regex> Regex::compileCached(const std::string& pattern, bool caseInsensitive,
                                                  std::string* error) {
    std::shared_ptr<const Regex> regex;
    if (regexCache().find(caseInsensitive, pattern, regex, error)) {
        return regex;
    }
    RegexCache::Compiled compiled;
    compiled.regex = compile(pattern, caseInsensitive, &compiled.error);
    if (!compiled.regex && error != nullptr) {
        *error = compiled.error;
    }
    regex = compiled.regex;
    regexCache().insert(caseInsensitive, pattern, std::move(compiled));
    return regex;
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
    if (!caseInsensitive) {
        regex->impl_->prefix = literalPrefix(pattern, regex->impl_->literal);
    }
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
        // A whole match starts at the subject's start, with the pattern's literal prefix.
        const std::string& prefix = impl_->prefix;
        if (impl_->literal) {
            return subject == prefix ? Result::Match : Result::NoMatch;
        }
        if (subject.compare(0, prefix.size(), prefix) != 0) {
            return Result::NoMatch;
        }
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
