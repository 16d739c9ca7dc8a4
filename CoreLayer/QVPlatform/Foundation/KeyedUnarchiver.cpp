#include "KeyedUnarchiver.h"

#include <limits>

#include "KeyedArchiveKeys.h"
#include "KeyedArchiver.h"
#include "PropertyList.h"

namespace qv {

std::optional<Value> KeyedUnarchiver::readArchive(std::string_view bytes, std::string* error) {
    auto read = readPropertyList(bytes);
    if (!read.ok()) {
        if (error != nullptr) {
            *error = read.error;
        }
        return std::nullopt;
    }
    return std::move(read.value);
}

const Value* KeyedUnarchiver::rootOf(const Value& archive, State& state) {
    auto refuse = [&state](const char* reason) -> const Value* {
        state.failed = true;
        state.error = reason;
        return nullptr;
    };
    if (!archive.isDictionary()) {
        return refuse("not a keyed archive");
    }
    const std::string* archiver = archive[archive_keys::kArchiver].asString();
    if (archiver == nullptr || *archiver != KeyedArchiver::kArchiverName) {
        return refuse("not a keyed archive of ours");
    }
    const Value& version = archive[archive_keys::kVersion];
    if (!version.isInteger() || version.integerValue() != KeyedArchiver::kArchiveVersion) {
        return refuse("unsupported archive version");
    }
    const Value& root = archive[archive_keys::kRoot];
    if (!root.isDictionary()) {
        return refuse("archive has no root object");
    }
    return &root;
}

void KeyedUnarchiver::fail(const std::string& reason) {
    if (!state_->failed) {
        state_->failed = true;
        state_->error = reason;
    }
}

const std::string* KeyedUnarchiver::classNameOf(const Value& object) {
    const std::string* name = object[archive_keys::kClass].asString();
    if (!object.isDictionary() || name == nullptr) {
        fail("object without a class name");
        return nullptr;
    }
    return name;
}

const Value* KeyedUnarchiver::fieldValue(std::string_view key) const {
    const Dictionary* fields = object_.asDictionary();
    return fields != nullptr ? fields->find(key) : nullptr;
}

bool KeyedUnarchiver::containsValueForKey(std::string_view key) const {
    return fieldValue(key) != nullptr;
}

bool KeyedUnarchiver::decodeBool(std::string_view key) {
    const Value* value = fieldValue(key);
    if (value == nullptr) {
        return false;
    }
    if (!value->isNumber()) {
        fail("not a boolean: " + std::string(key));
        return false;
    }
    return value->boolValue();
}

std::int32_t KeyedUnarchiver::decodeInt32(std::string_view key) {
    const Value* value = fieldValue(key);
    if (value == nullptr) {
        return 0;
    }
    const auto number = value->integerValue();
    if (!value->isInteger() || number < std::numeric_limits<std::int32_t>::min() ||
        number > std::numeric_limits<std::int32_t>::max()) {
        fail("not a 32-bit integer: " + std::string(key));
        return 0;
    }
    return static_cast<std::int32_t>(number);
}

Value KeyedUnarchiver::decodeValue(std::string_view key) {
    const Value* value = fieldValue(key);
    if (value == nullptr) {
        return Value();
    }
    if (value->isArray() || value->isDictionary()) {
        fail("not a plain value: " + std::string(key));
        return Value();
    }
    return *value;
}

Value KeyedUnarchiver::decodeNumber(std::string_view key) {
    const Value* value = fieldValue(key);
    if (value == nullptr) {
        return Value();
    }
    if (!value->isNumber()) {
        fail("not a number: " + std::string(key));
        return Value();
    }
    return *value;
}

std::optional<std::string> KeyedUnarchiver::decodeString(std::string_view key) {
    const Value* value = fieldValue(key);
    if (value == nullptr) {
        return std::nullopt;
    }
    if (!value->isString()) {
        fail("not a string: " + std::string(key));
        return std::nullopt;
    }
    return *value->asString();
}

const Array* KeyedUnarchiver::collectionMembers(std::string_view key, const char* className) {
    const Value* value = fieldValue(key);
    if (value == nullptr) {
        return nullptr;
    }
    const std::string* name = (*value)[archive_keys::kClass].asString();
    const Array* members = (*value)[archive_keys::kObjects].asArray();
    if (!value->isDictionary() || name == nullptr || *name != className || members == nullptr) {
        fail(std::string("not an ") + className + ": " + std::string(key));
        return nullptr;
    }
    return members;
}

std::optional<std::vector<std::string>> KeyedUnarchiver::decodeStringSet(std::string_view key) {
    const Array* members = collectionMembers(key, archive_keys::kSetClass);
    if (members == nullptr) {
        return std::nullopt;
    }
    std::vector<std::string> strings;
    strings.reserve(members->size());
    for (const Value& member : *members) {
        if (!member.isString()) {
            fail("set member is not a string: " + std::string(key));
            return std::nullopt;
        }
        strings.push_back(*member.asString());
    }
    return strings;
}

}  // namespace qv
