// QVDeviceDatabaseChecker: finds in a parsed device database what the framework would otherwise
// find out late (an exception at start-up or at the first lookup) or never (a key it does not
// read, a port it never reaches): entries without an ID, duplicate IDs, ancestors that name no
// entry, ancestor cycles, unknown keys, values of the wrong type, unknown strategies,
// manufacturers, enumeration values and capability names, regular expressions that do not
// compile, port numbers that are not numbers, and gaps in port or alternative numbering that hide
// what follows them.
//
// Values are checked with inheritance resolved, and a problem an entry only inherits is reported
// at the ancestor it comes from, so each problem gives one line. Used by `qvdevice db check`.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "Foundation/Value.h"

struct QVDeviceDatabaseProblem {
    // Names the entry: "entry #3 (Quorvel ID 15354)"; entries count from 1 in file order (or by
    // their key when the root is a dictionary).
    std::string entry;
    std::string message;
    std::string text() const { return entry + ": " + message; }
};

class QVDeviceDatabaseChecker {
  public:
    // Checks the root value of a database file.
    explicit QVDeviceDatabaseChecker(const qv::Value& root);

    const std::vector<QVDeviceDatabaseProblem>& problems() const { return _problems; }
    std::size_t entryCount() const { return _entryCount; }
    bool passed() const { return _problems.empty(); }

    // Text from a file as a report shows it: in double quotes, with quotes, backslashes and
    // control characters escaped, so that a hostile file cannot write to the terminal.
    static std::string quoted(std::string_view text);

  private:
    std::vector<QVDeviceDatabaseProblem> _problems;
    std::size_t _entryCount = 0;
};
