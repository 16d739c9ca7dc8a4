#include "Assertion.h"

#include "Exception.h"
#include "Logging.h"

namespace qv {

void raiseAssertion(const std::string& description, const std::string& file, int line) {
    logSystem("*** Assertion failure in %s:%d", file, line);
    throw Exception(kNSInternalInconsistencyException, description);
}

}  // namespace qv
