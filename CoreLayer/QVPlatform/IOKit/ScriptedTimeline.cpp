#include "ScriptedTimeline.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <set>

namespace qv {

namespace {

constexpr int kMaxEntryDepth = 64;
constexpr std::size_t kMaxTimelineFileSize = 64u << 20;

class Parser {
  public:
    explicit Parser(std::string* error) : error_(error) {}

    bool fail(const std::string& where, const std::string& message) {
        if (error_ != nullptr) {
            *error_ = where + ": " + message;
        }
        return false;
    }

    bool readId(const Json& json, const std::string& where, std::string& id) {
        if (json.is_string()) {
            id = json.get<std::string>();
            if (id.empty()) {
                return fail(where, "an id must not be empty");
            }
            return true;
        }
        if (json.is_number_integer()) {
            id = std::to_string(json.get<long long>());
            return true;
        }
        return fail(where, "an id must be a string or an integer");
    }

    bool checkKeys(const Json& object, const std::string& where,
                   std::initializer_list<const char*> allowed) {
        // Not a structured binding: clang 14 (the fuzz build) cannot capture one in a lambda.
        for (const auto& item : object.items()) {
            const std::string& key = item.key();
            bool known = std::any_of(allowed.begin(), allowed.end(),
                                     [&](const char* a) { return key == a; });
            if (!known) {
                return fail(where, "unknown key \"" + key + "\"");
            }
        }
        return true;
    }

    bool readProperties(const Json& json, const std::string& where, Value& out) {
        if (!json.is_object()) {
            return fail(where, "properties must be an object");
        }
        std::string message;
        auto value = valueFromJson(json, where, &message);
        if (!value) {
            if (error_ != nullptr) {
                *error_ = message;
            }
            return false;
        }
        out = std::move(*value);
        return true;
    }

    // A change may also take a key away: `null` there removes it (nil removes in the registry).
    bool readChangedProperties(const Json& json, const std::string& where, Value& out) {
        if (!json.is_object()) {
            return fail(where, "properties must be an object");
        }
        Json present = Json::object();
        std::vector<std::string> removed;
        for (const auto& [key, value] : json.items()) {
            if (value.is_null()) {
                removed.push_back(key);
            } else {
                present[key] = value;
            }
        }
        if (!readProperties(present, where, out)) {
            return false;
        }
        for (const std::string& key : removed) {
            out.set(key, Value());
        }
        return true;
    }

    bool readEntry(const Json& json, const std::string& where, int depth,
                   ScriptedTimeline::Entry& entry) {
        if (depth > kMaxEntryDepth) {
            return fail(where, "entries nested too deeply");
        }
        if (!json.is_object()) {
            return fail(where, "an entry must be an object");
        }
        if (!checkKeys(json, where, {"id", "class", "name", "properties", "children"})) {
            return false;
        }
        if (!json.contains("id")) {
            return fail(where, "an entry needs an \"id\"");
        }
        if (!readId(json["id"], where + ".id", entry.id)) {
            return false;
        }
        if (!json.contains("class") || !json["class"].is_string() ||
            json["class"].get<std::string>().empty()) {
            return fail(where, "an entry needs a \"class\" string");
        }
        entry.className = json["class"].get<std::string>();
        entry.name = entry.className;
        if (json.contains("name")) {
            if (!json["name"].is_string()) {
                return fail(where + ".name", "must be a string");
            }
            if (!json["name"].get<std::string>().empty()) {
                entry.name = json["name"].get<std::string>();
            }
        }
        if (entry.className.size() >= 128 || entry.name.size() >= 128) {
            return fail(where, "class and name must be shorter than 128 bytes");
        }
        entry.properties = Value(Dictionary{});
        if (json.contains("properties") &&
            !readProperties(json["properties"], where + ".properties", entry.properties)) {
            return false;
        }
        if (json.contains("children")) {
            const Json& children = json["children"];
            if (!children.is_array()) {
                return fail(where + ".children", "must be an array");
            }
            for (std::size_t i = 0; i < children.size(); ++i) {
                ScriptedTimeline::Entry child;
                if (!readEntry(children[i], where + ".children[" + std::to_string(i) + "]",
                               depth + 1, child)) {
                    return false;
                }
                entry.children.push_back(std::move(child));
            }
        }
        return true;
    }

    bool readEvent(const Json& json, const std::string& where, ScriptedTimeline::Event& event) {
        event.where = where;
        if (!json.is_object()) {
            return fail(where, "an event must be an object");
        }
        if (!checkKeys(json, where, {"at", "add", "set", "remove"})) {
            return false;
        }
        if (!json.contains("at") || !json["at"].is_number()) {
            return fail(where, "an event needs a number \"at\"");
        }
        event.at = json["at"].get<double>();
        if (!std::isfinite(event.at) || event.at < 0.0 ||
            event.at > ScriptedTimeline::kMaxEventTime) {
            return fail(
                where + ".at",
                "must be a time from 0 to " +
                    std::to_string(static_cast<long long>(ScriptedTimeline::kMaxEventTime)) +
                    " seconds");
        }
        int kinds = static_cast<int>(json.contains("add")) +
                    static_cast<int>(json.contains("set")) +
                    static_cast<int>(json.contains("remove"));
        if (kinds != 1) {
            return fail(where, "an event has exactly one of \"add\", \"set\" and \"remove\"");
        }
        if (json.contains("add")) {
            event.kind = ScriptedTimeline::Event::Kind::Add;
            const Json& add = json["add"];
            if (!add.is_object()) {
                return fail(where + ".add", "must be an object");
            }
            if (!checkKeys(add, where + ".add", {"parent", "entry"})) {
                return false;
            }
            if (add.contains("parent") && !add["parent"].is_null() &&
                !readId(add["parent"], where + ".add.parent", event.parentId)) {
                return false;
            }
            if (!add.contains("entry")) {
                return fail(where + ".add", "needs an \"entry\"");
            }
            return readEntry(add["entry"], where + ".add.entry", 0, event.entry);
        }
        if (json.contains("set")) {
            event.kind = ScriptedTimeline::Event::Kind::Set;
            const Json& set = json["set"];
            if (!set.is_object()) {
                return fail(where + ".set", "must be an object");
            }
            if (!checkKeys(set, where + ".set", {"id", "properties"})) {
                return false;
            }
            if (!set.contains("id") || !readId(set["id"], where + ".set.id", event.id)) {
                return set.contains("id") ? false : fail(where + ".set", "needs an \"id\"");
            }
            if (!set.contains("properties")) {
                return fail(where + ".set", "needs \"properties\"");
            }
            return readChangedProperties(set["properties"], where + ".set.properties",
                                         event.properties);
        }
        event.kind = ScriptedTimeline::Event::Kind::Remove;
        return readId(json["remove"], where + ".remove", event.id);
    }

  private:
    std::string* error_;
};

void collectIds(const ScriptedTimeline::Entry& entry, std::vector<std::string>& ids) {
    ids.push_back(entry.id);
    for (const auto& child : entry.children) {
        collectIds(child, ids);
    }
}

// Plays the sorted story through once without a registry: parents, duplicates and removals must
// make sense, and no entry may sit deeper below the root than one entry may nest, whichever events
// built the chain (whoever shows the registry walks it recursively).
bool playOnPaper(const std::vector<ScriptedTimeline::Event>& events, Parser& parser) {
    using Event = ScriptedTimeline::Event;
    struct Present {
        std::string parent;  // "" below the root
        int depth = 0;       // 0 below the root
        std::set<std::string> children;
    };
    std::map<std::string, Present> present;
    for (const Event& event : events) {
        switch (event.kind) {
            case Event::Kind::Add: {
                int depth = 0;
                if (!event.parentId.empty()) {
                    auto parent = present.find(event.parentId);
                    if (parent == present.end()) {
                        return parser.fail(event.where + ".add.parent",
                                           "unknown parent \"" + event.parentId + "\"");
                    }
                    depth = parent->second.depth + 1;
                }
                std::vector<std::string> ids;
                collectIds(event.entry, ids);
                std::set<std::string> seen;
                for (const auto& id : ids) {
                    if (present.count(id) != 0 || !seen.insert(id).second) {
                        return parser.fail(event.where + ".add.entry",
                                           "duplicate id \"" + id + "\"");
                    }
                }
                struct Placed {
                    const ScriptedTimeline::Entry* entry;
                    std::string parent;
                    int depth;
                };
                std::vector<Placed> stack{{&event.entry, event.parentId, depth}};
                while (!stack.empty()) {
                    Placed placed = std::move(stack.back());
                    stack.pop_back();
                    if (placed.depth > kMaxEntryDepth) {
                        return parser.fail(event.where + ".add.entry", "entries nested too deeply");
                    }
                    present[placed.entry->id] = Present{placed.parent, placed.depth, {}};
                    if (!placed.parent.empty()) {
                        present[placed.parent].children.insert(placed.entry->id);
                    }
                    for (const auto& child : placed.entry->children) {
                        stack.push_back({&child, placed.entry->id, placed.depth + 1});
                    }
                }
                break;
            }
            case Event::Kind::Set:
                if (present.count(event.id) == 0) {
                    return parser.fail(event.where + ".set.id", "unknown id \"" + event.id + "\"");
                }
                break;
            case Event::Kind::Remove: {
                auto removed = present.find(event.id);
                if (removed == present.end()) {
                    return parser.fail(event.where + ".remove", "unknown id \"" + event.id + "\"");
                }
                if (!removed->second.parent.empty()) {
                    present[removed->second.parent].children.erase(event.id);
                }
                // The entry and every id below it.
                std::vector<std::string> gone{event.id};
                while (!gone.empty()) {
                    auto entry = present.find(gone.back());
                    gone.pop_back();
                    gone.insert(gone.end(), entry->second.children.begin(),
                                entry->second.children.end());
                    present.erase(entry);
                }
                break;
            }
        }
    }
    return true;
}

}  // namespace

std::optional<ScriptedTimeline> ScriptedTimeline::fromJson(const Json& json, std::string* error) {
    Parser parser(error);
    const Json* list = &json;
    if (json.is_object()) {
        if (!parser.checkKeys(json, "timeline file", {"timeline"})) {
            return std::nullopt;
        }
        if (!json.contains("timeline")) {
            parser.fail("timeline file", "needs a \"timeline\" array");
            return std::nullopt;
        }
        list = &json["timeline"];
    }
    if (!list->is_array()) {
        parser.fail("timeline", "must be an array of events");
        return std::nullopt;
    }
    ScriptedTimeline timeline;
    for (std::size_t i = 0; i < list->size(); ++i) {
        Event event;
        if (!parser.readEvent((*list)[i], "timeline[" + std::to_string(i) + "]", event)) {
            return std::nullopt;
        }
        timeline.events_.push_back(std::move(event));
    }
    std::stable_sort(timeline.events_.begin(), timeline.events_.end(),
                     [](const Event& a, const Event& b) { return a.at < b.at; });

    if (!playOnPaper(timeline.events_, parser)) {
        return std::nullopt;
    }
    return timeline;
}

std::optional<ScriptedTimeline> ScriptedTimeline::fromFile(const std::string& path,
                                                           std::string* error) {
    auto json = readJsonFile(path, kMaxTimelineFileSize, error);
    if (!json) {
        return std::nullopt;
    }
    return fromJson(*json, error);
}

}  // namespace qv
