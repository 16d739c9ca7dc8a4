#include "Exception.h"

#include <utility>

namespace qv {

Exception::Exception(std::string name, std::string reason)
    : std::runtime_error(name + ": " + reason),
      name_(std::move(name)),
      reason_(std::move(reason)) {}

}  // namespace qv
