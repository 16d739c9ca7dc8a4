#include "Object.h"

#include <cstdio>
#include <typeinfo>

namespace qv {

std::string Object::description() const {
    char buf[64];
    std::snprintf(buf, sizeof buf, ": %p>", static_cast<const void*>(this));
    return std::string("<") + typeid(*this).name() + buf;
}

}  // namespace qv
