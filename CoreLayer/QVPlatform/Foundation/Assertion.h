// qv::raiseAssertion: a failed assertion (NSAssert). Writes "*** Assertion failure in FILE:LINE" to
// the system log, then raises NSInternalInconsistencyException with the description as its reason.
#pragma once

#include <string>

namespace qv {

[[noreturn]] void raiseAssertion(const std::string& description, const std::string& file, int line);

}  // namespace qv
