#include "HelperCommandLine.h"

#include <algorithm>

namespace helpercli {

bool isHelpOption(const std::string& argument) {
    return argument == "--help" || argument == "-h";
}

bool isOption(const std::string& argument, const std::string& option) {
    return argument == option || argument.rfind(option + "=", 0) == 0;
}

bool takeOptionValue(const std::vector<std::string>& arguments, std::size_t* index,
                     const std::string& option, std::string* value, std::string* error,
                     bool joinedValue) {
    const std::string& argument = arguments[*index];
    if (joinedValue && argument.size() > option.size() &&
        argument.compare(0, option.size(), option) == 0 && argument[option.size()] == '=') {
        *value = argument.substr(option.size() + 1);
        return true;
    }
    if (*index + 1 >= arguments.size()) {
        *error = option + " needs a value";
        return false;
    }
    *value = arguments[++*index];
    return true;
}

int failWithLine(std::ostream& err, const char* program, const std::string& message) {
    std::string line = message;
    std::replace(line.begin(), line.end(), '\n', ' ');
    err << program << ": " << line << "\n";
    return 1;
}

}  // namespace helpercli
