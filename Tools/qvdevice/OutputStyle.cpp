#include "OutputStyle.h"

#include <unistd.h>

#include <iostream>

namespace qvdevice {

bool wantsPrettyLines(bool pretty, bool json, const std::ostream& out) {
    if (pretty || json) {
        return pretty;
    }
    return &out == &std::cout && isatty(STDOUT_FILENO) == 1;
}

}  // namespace qvdevice
