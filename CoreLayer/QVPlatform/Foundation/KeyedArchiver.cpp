#include "KeyedArchiver.h"

#include "Exception.h"
#include "Format.h"
#include "KeyedArchiveKeys.h"
#include "PropertyList.h"

namespace qv {

Value KeyedArchiver::encodeRoot(const Coding& object) {
    KeyedArchiver coder;
    coder.fields_.set(archive_keys::kClass, object.classNameForArchive());
    object.encodeWithCoder(coder);
    return Value(std::move(coder.fields_));
}

Value KeyedArchiver::archivedValueWithRootObject(const Coding& root) {
    return Value(Dictionary{
        {archive_keys::kArchiver, Value(kArchiverName)},
        {archive_keys::kVersion, Value::integer(kArchiveVersion)},
        {archive_keys::kRoot, encodeRoot(root)},
    });
}

std::string KeyedArchiver::archivedDataWithRootObject(const Coding& root) {
    auto written = writeXMLPropertyList(archivedValueWithRootObject(root));
    if (!written.ok()) {
        // Only a nil inside the tree can fail, and encodeValue never stores one.
        throw Exception(kNSInternalInconsistencyException,
                        format("Could not write archive: %@", written.error));
    }
    return written.xml;
}

void KeyedArchiver::encodeBool(bool value, std::string_view key) {
    fields_.set(std::string(key), Value(value));
}

void KeyedArchiver::encodeInt32(std::int32_t value, std::string_view key) {
    fields_.set(std::string(key), Value::integer(value));
}

void KeyedArchiver::encodeValue(const Value& value, std::string_view key) {
    if (value.isNil()) {
        return;
    }
    if (value.isArray() || value.isDictionary()) {
        throw Exception(kNSInternalInconsistencyException,
                        format("Cannot encode a plain collection for key %@", key));
    }
    fields_.set(std::string(key), value);
}

void KeyedArchiver::encodeString(const std::optional<std::string>& value, std::string_view key) {
    if (value) {
        fields_.set(std::string(key), Value(*value));
    }
}

void KeyedArchiver::encodeStringSet(const std::vector<std::string>& members, std::string_view key) {
    Array strings;
    strings.reserve(members.size());
    for (const auto& member : members) {
        strings.emplace_back(member);
    }
    fields_.set(std::string(key), Value(Dictionary{
                                      {archive_keys::kClass, Value(archive_keys::kSetClass)},
                                      {archive_keys::kObjects, Value(std::move(strings))},
                                  }));
}

void KeyedArchiver::encodeObject(const Coding* object, std::string_view key) {
    if (object != nullptr) {
        fields_.set(std::string(key), encodeRoot(*object));
    }
}

void KeyedArchiver::encodeObjectArray(const std::vector<const Coding*>& members,
                                      std::string_view key) {
    Array objects;
    objects.reserve(members.size());
    for (const Coding* member : members) {
        if (member != nullptr) {
            objects.push_back(encodeRoot(*member));
        }
    }
    fields_.set(std::string(key), Value(Dictionary{
                                      {archive_keys::kClass, Value(archive_keys::kArrayClass)},
                                      {archive_keys::kObjects, Value(std::move(objects))},
                                  }));
}

}  // namespace qv
