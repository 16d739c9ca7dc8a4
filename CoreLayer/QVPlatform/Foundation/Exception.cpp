#include "Exception.h"

#include <utility>

#include "Logging.h"

namespace qv {

Exception::Exception(std::string name, std::string reason)
    : std::runtime_error(name + ": " + reason),
      name_(std::move(name)),
      reason_(std::move(reason)) {}

void raiseAssertion(const std::string& description, const std::string& file, int line) {
    logSystem("*** Assertion failure in %s:%d", file, line);
    throw Exception(kNSInternalInconsistencyException, description);
}

}  // namespace qv
