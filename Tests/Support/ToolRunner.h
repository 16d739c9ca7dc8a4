// Runs the qvdevice command line in-process, capturing what it writes.
#pragma once

#include <sstream>
#include <string>
#include <vector>

#include "qvdevice/CommandLine.h"

struct ToolRun {
    int code = 0;
    std::string out;
    std::string err;
};

// `arguments` without the program name.
inline ToolRun runQvdevice(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "qvdevice");
    std::vector<char*> argv;
    for (auto& argument : arguments) {
        argv.push_back(argument.data());
    }
    std::ostringstream out;
    std::ostringstream err;
    int code = qvdevice::run(static_cast<int>(argv.size()), argv.data(), out, err);
    return {code, out.str(), err.str()};
}
