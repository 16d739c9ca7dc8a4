// qv::Regex: the regular expressions of the original platform's predicates ("MATCHES"): ICU
// syntax, matched against the whole string, with a time limit so that a hostile pattern or a
// long subject cannot hang the host. Patterns and subjects are UTF-8.
#pragma once

#include <memory>
#include <string>

namespace qv {

class Regex {
  public:
    enum class Result { Match, NoMatch, Error };

    // nullptr and an error text when the pattern does not compile.
    static std::shared_ptr<const Regex> compile(const std::string& pattern, bool caseInsensitive,
                                                std::string* error = nullptr);

    // The same, from a small process-wide cache: a pattern that comes back (a database entry's
    // port pattern, a rules file's exclusion) is compiled once. Bounded, so hostile input that
    // brings endless new patterns cannot grow it; thread-safe.
    static std::shared_ptr<const Regex> compileCached(const std::string& pattern,
                                                      bool caseInsensitive,
                                                      std::string* error = nullptr);

    // Whole-string match. Error when the time limit ran out or the subject is not valid UTF-8.
    Result matchesWhole(const std::string& subject) const;
    bool matches(const std::string& subject) const {
        return matchesWhole(subject) == Result::Match;
    }

    const std::string& pattern() const { return pattern_; }
    ~Regex();

    // The matcher's work limit, in ICU time-limit steps (about a millisecond each).
    static constexpr int kTimeLimitSteps = 200;

  private:
    Regex() = default;
    struct Impl;
    std::unique_ptr<Impl> impl_;
    std::string pattern_;
};

}  // namespace qv
