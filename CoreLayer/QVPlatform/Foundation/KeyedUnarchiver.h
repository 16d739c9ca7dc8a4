// qv::KeyedUnarchiver: reads the archives KeyedArchiver writes (what NSKeyedUnarchiver was to the
// original framework). An archive comes from outside and is hostile: the caller names the classes
// it accepts at each place (as NSSecureCoding's decodeObjectOfClasses does), every type mismatch
// marks the decoding failed, and a failed decoding answers nullptr at the top, never a crash.
// A key that is missing decodes as absent (nil, NO, 0), as on the original platform.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Value.h"

namespace qv {

class KeyedUnarchiver {
  public:
    // What makes an object of one class from its archived fields; nullptr when it can't.
    template <class T>
    using Decoder = std::function<std::shared_ptr<T>(KeyedUnarchiver&)>;
    // The classes accepted at one place, by the name the archive gives under "$class".
    template <class T>
    using ClassTable = std::vector<std::pair<std::string, Decoder<T>>>;

    // Nested objects deeper than this fail the decoding.
    static constexpr int kMaxObjectDepth = 32;

    // The root object of an archive given as property-list text or as its value. nullptr when
    // the text is no property list, the layout is not ours, the root's class is not in
    // `classes`, or anything inside failed to decode; `error` then says why.
    template <class T>
    static std::shared_ptr<T> unarchiveObjectWithData(std::string_view bytes,
                                                      const ClassTable<T>& classes,
                                                      std::string* error = nullptr) {
        std::optional<Value> archive = readArchive(bytes, error);
        return archive ? unarchiveObjectWithValue(*archive, classes, error) : nullptr;
    }

    template <class T>
    static std::shared_ptr<T> unarchiveObjectWithValue(const Value& archive,
                                                       const ClassTable<T>& classes,
                                                       std::string* error = nullptr) {
        auto state = std::make_shared<State>();
        const Value* root = rootOf(archive, *state);
        std::shared_ptr<T> object;
        if (root != nullptr) {
            KeyedUnarchiver coder(*root, state, 0);
            object = coder.decodeObjectValue(*root, classes);
        }
        if (error != nullptr) {
            *error = state->error;
        }
        return state->failed ? nullptr : object;
    }

    bool containsValueForKey(std::string_view key) const;
    // Missing: NO / 0. A value that is not a number fails the decoding.
    bool decodeBool(std::string_view key);
    std::int32_t decodeInt32(std::string_view key);
    // Missing: nil. A collection fails the decoding (collections are objects).
    Value decodeValue(std::string_view key);
    // Missing: nil. Anything but a number fails the decoding.
    Value decodeNumber(std::string_view key);
    // Missing: nothing. Anything but a string fails the decoding.
    std::optional<std::string> decodeString(std::string_view key);
    // Missing: nothing. Anything but an "NSSet" of strings fails the decoding.
    std::optional<std::vector<std::string>> decodeStringSet(std::string_view key);

    // A nested object of one of `classes`; missing: nullptr.
    template <class T>
    std::shared_ptr<T> decodeObject(std::string_view key, const ClassTable<T>& classes) {
        const Value* value = fieldValue(key);
        return value != nullptr ? decodeObjectValue(*value, classes) : nullptr;
    }

    // An "NSArray" whose members are each of one of `classes`; missing: nothing.
    template <class T>
    std::optional<std::vector<std::shared_ptr<T>>> decodeArray(std::string_view key,
                                                               const ClassTable<T>& classes) {
        const Array* members = collectionMembers(key, kArrayClassName);
        if (members == nullptr) {
            return std::nullopt;
        }
        std::vector<std::shared_ptr<T>> objects;
        objects.reserve(members->size());
        for (const Value& member : *members) {
            auto object = decodeObjectValue(member, classes);
            if (object == nullptr) {
                fail("array member could not be decoded");
                return std::nullopt;
            }
            objects.push_back(std::move(object));
        }
        return objects;
    }

    // Marks the whole decoding failed; the first reason is kept.
    void fail(const std::string& reason);
    bool failed() const { return state_->failed; }

  private:
    struct State {
        bool failed = false;
        std::string error;
    };
    static constexpr const char* kArrayClassName = "NSArray";

    KeyedUnarchiver(const Value& object, std::shared_ptr<State> state, int depth)
        : object_(object), state_(std::move(state)), depth_(depth) {}

    static std::optional<Value> readArchive(std::string_view bytes, std::string* error);
    static const Value* rootOf(const Value& archive, State& state);
    // The object's class name, or nullptr (and the decoding failed) when it has none.
    const std::string* classNameOf(const Value& object);
    const Value* fieldValue(std::string_view key) const;
    const Array* collectionMembers(std::string_view key, const char* className);

    template <class T>
    std::shared_ptr<T> decodeObjectValue(const Value& object, const ClassTable<T>& classes) {
        if (depth_ >= kMaxObjectDepth) {
            fail("objects nested too deeply");
            return nullptr;
        }
        const std::string* className = classNameOf(object);
        if (className == nullptr) {
            return nullptr;
        }
        for (const auto& [name, decoder] : classes) {
            if (name == *className) {
                KeyedUnarchiver nested(object, state_, depth_ + 1);
                auto decoded = decoder(nested);
                if (decoded == nullptr) {
                    fail("object of class " + name + " could not be decoded");
                }
                return failed() ? nullptr : decoded;
            }
        }
        fail("class not accepted here: " + *className);
        return nullptr;
    }

    const Value& object_;
    std::shared_ptr<State> state_;
    int depth_;
};

}  // namespace qv
