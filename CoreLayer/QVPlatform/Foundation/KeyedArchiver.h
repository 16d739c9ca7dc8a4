// qv::KeyedArchiver and qv::Coding: what NSKeyedArchiver and NSCoding were to the original
// framework. An object that adopts Coding writes its fields under string keys; the archiver turns
// the object tree into a property list of our own layout (docs/archive-format.md) and writes it as
// XML. Objects are written as a tree: an object referenced twice is written twice, and cycles are
// not supported (the framework's model has none).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Value.h"

namespace qv {

class KeyedArchiver;

class Coding {
  public:
    virtual ~Coding() = default;
    // The name written under "$class"; decoding picks the class to make by it.
    virtual std::string classNameForArchive() const = 0;
    virtual void encodeWithCoder(KeyedArchiver& coder) const = 0;
};

class KeyedArchiver {
  public:
    static constexpr const char* kArchiverName = "QVKeyedArchiver";
    static constexpr std::int64_t kArchiveVersion = 1;

    // The archive of `root` as a property-list value, and as XML property-list text.
    static Value archivedValueWithRootObject(const Coding& root);
    static std::string archivedDataWithRootObject(const Coding& root);

    void encodeBool(bool value, std::string_view key);
    void encodeInt32(std::int32_t value, std::string_view key);
    // A string, number, data or date; nil writes nothing, so the key decodes as absent.
    // Collections go through encodeStringSet / encodeArray; any other collection raises
    // NSInternalInconsistencyException (a programming error).
    void encodeValue(const Value& value, std::string_view key);
    void encodeString(const std::optional<std::string>& value, std::string_view key);
    // An unordered collection of strings, written as an "NSSet".
    void encodeStringSet(const std::vector<std::string>& members, std::string_view key);
    // A nested object; nullptr writes nothing.
    void encodeObject(const Coding* object, std::string_view key);
    // An ordered list of objects, written as an "NSArray"; null members are left out.
    void encodeObjectArray(const std::vector<const Coding*>& members, std::string_view key);

    template <class T>
    void encodeArray(const std::vector<std::shared_ptr<T>>& members, std::string_view key) {
        std::vector<const Coding*> objects;
        objects.reserve(members.size());
        for (const auto& member : members) {
            objects.push_back(member.get());
        }
        encodeObjectArray(objects, key);
    }

  private:
    KeyedArchiver() = default;
    static Value encodeRoot(const Coding& object);

    Dictionary fields_;
};

}  // namespace qv
