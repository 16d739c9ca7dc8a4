// qv::Object: the common base of the framework's classes, what NSObject was to the original.
// It gives every object a description (the text "%@" prints) and an equality test.
#pragma once

#include <memory>
#include <string>

namespace qv {

class Object {
  public:
    virtual ~Object() = default;

    // What "%@" prints for the object.
    virtual std::string description() const;
    // Identity unless a subclass says otherwise.
    virtual bool isEqual(const Object& other) const { return this == &other; }
};

// isEqual: with nil on either side answers NO, as a message to nil does.
inline bool isEqual(const std::shared_ptr<const Object>& a,
                    const std::shared_ptr<const Object>& b) {
    return a && b && a->isEqual(*b);
}

}  // namespace qv
