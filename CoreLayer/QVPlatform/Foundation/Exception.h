// qv::Exception: an exception the platform raised, with its name ("NSException",
// "NSInternalInconsistencyException", ...) and its reason text.
#pragma once

#include <stdexcept>
#include <string>

namespace qv {

class Exception : public std::runtime_error {
  public:
    Exception(std::string name, std::string reason);

    const std::string& name() const { return name_; }
    const std::string& reason() const { return reason_; }

  private:
    std::string name_;
    std::string reason_;
};

inline constexpr const char* kNSException = "NSException";
inline constexpr const char* kNSInternalInconsistencyException = "NSInternalInconsistencyException";

}  // namespace qv
