// qv::format: the printf subset the framework's texts use, plus "%@" for an object's
// description. The format is always one of the framework's own texts; anything that comes from
// outside (device names, file contents, AT answers) is passed only as an argument.
// Conversions: %d %i %u %x %X %o %c %s %@ %f %F %e %E %g %G %p %%, with flags (- + space 0 #),
// width, precision and the length modifiers h hh l ll z j t q (accepted and ignored: every
// argument already carries its type). A missing argument prints as "(null)" or 0; an argument of
// another kind is converted, never reinterpreted.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

#include "Object.h"
#include "Value.h"

namespace qv {

class FormatArg {
  public:
    enum class Kind { Signed, Unsigned, Real, Text, Object, Value, Null };

    FormatArg(int v) : kind_(Kind::Signed), i_(v) {}
    FormatArg(long v) : kind_(Kind::Signed), i_(v) {}
    FormatArg(long long v) : kind_(Kind::Signed), i_(v) {}
    FormatArg(unsigned v) : kind_(Kind::Unsigned), u_(v) {}
    FormatArg(unsigned long v) : kind_(Kind::Unsigned), u_(v) {}
    FormatArg(unsigned long long v) : kind_(Kind::Unsigned), u_(v) {}
    FormatArg(bool v) : kind_(Kind::Signed), i_(v ? 1 : 0) {}
    FormatArg(double v) : kind_(Kind::Real), d_(v) {}
    FormatArg(const char* s) : kind_(s != nullptr ? Kind::Text : Kind::Null), text_(s) {}
    FormatArg(const std::string& s) : kind_(Kind::Text), text_(s) {}
    FormatArg(std::string_view s) : kind_(Kind::Text), text_(s) {}
    FormatArg(const Value& v) : kind_(Kind::Value), value_(&v) {}
    FormatArg(const Object& o) : kind_(Kind::Object), object_(&o) {}
    FormatArg(const Object* o) : kind_(o != nullptr ? Kind::Object : Kind::Null), object_(o) {}
    FormatArg(std::nullptr_t) : kind_(Kind::Null) {}
    template <class T, class = std::enable_if_t<std::is_base_of_v<Object, T>>>
    FormatArg(const std::shared_ptr<T>& o) : FormatArg(static_cast<const Object*>(o.get())) {}

    Kind kind() const { return kind_; }
    long long asSigned() const;
    unsigned long long asUnsigned() const;
    double asReal() const;
    // What %@ prints: an object's description, a value's description, text as itself.
    std::string describe() const;
    // What %s prints: text as itself, "(null)" for nil, otherwise the description.
    std::string asText() const;

  private:
    Kind kind_;
    long long i_ = 0;
    unsigned long long u_ = 0;
    double d_ = 0.0;
    std::string_view text_;
    const Value* value_ = nullptr;
    const Object* object_ = nullptr;
};

std::string formatArgs(std::string_view format, std::initializer_list<FormatArg> args);

template <class... Args>
std::string format(std::string_view fmt, const Args&... args) {
    return formatArgs(fmt, {FormatArg(args)...});
}

}  // namespace qv
