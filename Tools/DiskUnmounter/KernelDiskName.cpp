#include "KernelDiskName.h"

#include <algorithm>

namespace diskunmounter {

namespace {

// The kernel keeps disk names in a 32-byte buffer with its terminating zero.
constexpr std::size_t kMaximumNameLength = 31;

bool isNameCharacter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '-' || c == '.';
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

}  // namespace

bool isPlainKernelName(std::string_view name) {
    if (name.empty() || name.size() > kMaximumNameLength) {
        return false;
    }
    if (name.front() == '-' || name.front() == '.') {
        return false;
    }
    if (name.find("..") != std::string_view::npos) {
        return false;
    }
    return std::all_of(name.begin(), name.end(), isNameCharacter);
}

bool isOpticalDriveName(std::string_view name) {
    if (name.size() < 3 || name.substr(0, 2) != "sr") {
        return false;
    }
    return std::all_of(name.begin() + 2, name.end(), isDigit);
}

}  // namespace diskunmounter
