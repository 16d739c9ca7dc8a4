// qv::ScriptedTimeline: a registry story read from JSON, checked whole before anything runs.
//
//   {"timeline": [
//      {"at": SECONDS, "add": {"parent": ID_OR_NULL, "entry": ENTRY}},
//      {"at": SECONDS, "set": {"id": ID, "properties": {...}}},
//      {"at": SECONDS, "remove": ID}]}
//   ENTRY = {"id": ID, "class": CLASS, "name": NAME, "properties": {...}, "children": [ENTRY...]}
//
// IDs are strings or integers, unique among the entries present at a time (an ID may come back
// after its entry was removed: a stick plugged in again). "name" defaults to the class. Property
// values follow JsonValue.h ({"$data": "<base64>"} is data). Events run in time order; events
// with the same time run in file order.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Foundation/JsonValue.h"

namespace qv {

class ScriptedTimeline {
  public:
    // The latest time an event may have: about 115 days, as far as a story may be played.
    static constexpr double kMaxEventTime = 1e7;

    struct Entry {
        std::string id;
        std::string className;
        std::string name;
        Value properties;
        std::vector<Entry> children;
    };
    struct Event {
        enum class Kind { Add, Set, Remove } kind = Kind::Add;
        double at = 0.0;
        std::string where;     // "timeline[3]", for messages
        std::string parentId;  // Add; empty: below the registry root
        Entry entry;           // Add
        std::string id;        // Set, Remove
        Value properties;      // Set
    };

    // Parses `json`: either the object {"timeline": [...]} or the bare array. On failure returns
    // nullopt and sets `error` to one line naming the event.
    static std::optional<ScriptedTimeline> fromJson(const Json& json, std::string* error);
    static std::optional<ScriptedTimeline> fromFile(const std::string& path, std::string* error);

    // Events sorted by time (stable).
    const std::vector<Event>& events() const { return events_; }
    double endTime() const { return events_.empty() ? 0.0 : events_.back().at; }

  private:
    std::vector<Event> events_;
};

}  // namespace qv
