// The command line of the framework's helper programs (CardPrepTool, qv-unmount-disk): the same
// frame around each program's own parse. --help prints the usage text to standard output and exits
// 0; a bad command line is one line "PROGRAM: why" on standard error and exit status 2; otherwise
// the program runs and its status is the exit status.
#pragma once

#include <cstddef>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace helpercli {

// A program's parse: its options, or nullopt with `error` set (or with `helpWanted` set for
// --help and -h).
template <typename Options>
using Parse = std::optional<Options> (*)(const std::vector<std::string>& arguments,
                                         std::string* error, bool* helpWanted);

template <typename Options, typename Run>
int runCommandLine(const char* program, const char* usage,
                   const std::vector<std::string>& arguments, Parse<Options> parse,
                   std::ostream& out, std::ostream& err, Run run) {
    std::string error;
    bool helpWanted = false;
    std::optional<Options> options = parse(arguments, &error, &helpWanted);
    if (helpWanted) {
        out << usage;
        return 0;
    }
    if (!options) {
        err << program << ": " << error << "\n";
        return 2;
    }
    return run(std::move(*options));
}

// The same for a program written as a command class: `Command::parse`, `Command::usage()`, and
// `Command(options, out, err).run()`.
template <typename Command, typename Options>
int runProgram(const char* program, const std::vector<std::string>& arguments, std::ostream& out,
               std::ostream& err) {
    return runCommandLine<Options>(
        program, Command::usage(), arguments, &Command::parse, out, err,
        [&](Options options) { return Command(std::move(options), out, err).run(); });
}

bool isHelpOption(const std::string& argument);

// Whether `argument` is `option`, alone or as "OPTION=VALUE".
bool isOption(const std::string& argument, const std::string& option);

// The value of the option at arguments[*index]: its "=VALUE" part where `joinedValue` allows that
// form, otherwise the next argument, which is then passed over. false with "OPTION needs a value"
// in `error` when there is none.
bool takeOptionValue(const std::vector<std::string>& arguments, std::size_t* index,
                     const std::string& option, std::string* value, std::string* error,
                     bool joinedValue = true);

// A failure after the command line was read: one line "PROGRAM: message" on `err`
// (newlines in the message become blanks, so a file name cannot start a line of its own);
// returns 1.
int failWithLine(std::ostream& err, const char* program, const std::string& message);

}  // namespace helpercli
