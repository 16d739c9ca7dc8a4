#include "Knowledge/QVDeviceDatabaseChecker.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string_view>
#include <unordered_map>

#include "Foundation/Exception.h"
#include "Foundation/Format.h"
#include "Foundation/Regex.h"
#include "Knowledge/QVDeviceDatabase.h"
#include "Knowledge/QVDeviceDatabaseEntry.h"
#include "Knowledge/QVDeviceDatabaseKeys.h"

namespace Keys = QVDeviceDatabaseKeys;

namespace {

std::string quoted(std::string_view text) {
    return QVDeviceDatabaseChecker::quoted(text);
}

std::string typeName(const qv::Value& value) {
    switch (value.type()) {
        case qv::Value::Type::Nil:
            return "nothing";
        case qv::Value::Type::String:
            return "a string";
        case qv::Value::Type::Integer:
            return "an integer";
        case qv::Value::Type::Real:
            return "a real number";
        case qv::Value::Type::Boolean:
            return "a boolean";
        case qv::Value::Type::Data:
            return "data";
        case qv::Value::Type::Date:
            return "a date";
        case qv::Value::Type::Array:
            return "a list";
        case qv::Value::Type::Dictionary:
            return "a dictionary";
    }
    return "unknown";
}

// A string shows as itself (quoted), anything else by its type.
std::string shown(const qv::Value& value) {
    const std::string* text = value.asString();
    return text != nullptr ? quoted(*text) : typeName(value);
}

// An integer, or a string that is a whole decimal integer (an optional minus, then digits).
std::optional<long long> wholeInteger(const qv::Value& value) {
    if (value.isInteger()) {
        return value.integerValue();
    }
    const std::string* text = value.asString();
    if (text == nullptr) {
        return std::nullopt;
    }
    std::string_view digits = *text;
    if (!digits.empty() && digits.front() == '-') {
        digits.remove_prefix(1);
    }
    if (digits.empty() || digits.size() > 18 ||
        !std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        return std::nullopt;
    }
    return value.integerValue();
}

// A port or alternative index as the framework writes it: decimal, no sign, no leading zero.
std::optional<std::uint32_t> parseIndex(std::string_view digits) {
    if (digits.empty() || digits.size() > 9 || (digits.size() > 1 && digits.front() == '0') ||
        !std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(std::stoul(std::string(digits)));
}

enum class IndexedKind { Pattern, Alternative, PortCapabilities, EthernetCapabilities };

struct IndexedKey {
    IndexedKind kind;
    std::uint32_t index;        // the port (or Ethernet interface)
    std::uint32_t alternative;  // alternatives only
};

std::optional<IndexedKey> parseIndexedKey(std::string_view key) {
    auto after = [&key](std::string_view prefix) -> std::optional<std::string_view> {
        if (key.substr(0, prefix.size()) != prefix) {
            return std::nullopt;
        }
        return key.substr(prefix.size());
    };
    if (auto rest = after(Keys::kPatternPortPrefix)) {
        if (auto port = parseIndex(*rest)) {
            return IndexedKey{IndexedKind::Pattern, *port, 0};
        }
    } else if (auto rest = after(Keys::kPatternAlternativePrefix)) {
        std::size_t infix = rest->find(Keys::kPatternAlternativePortInfix);
        if (infix != std::string_view::npos) {
            auto alternative = parseIndex(rest->substr(0, infix));
            auto port = parseIndex(rest->substr(infix + Keys::kPatternAlternativePortInfix.size()));
            if (alternative && port) {
                return IndexedKey{IndexedKind::Alternative, *port, *alternative};
            }
        }
    } else if (auto rest = after(Keys::kCapabilitiesPortPrefix)) {
        if (auto port = parseIndex(*rest)) {
            return IndexedKey{IndexedKind::PortCapabilities, *port, 0};
        }
    } else if (auto rest = after(Keys::kCapabilitiesEthernetPrefix)) {
        if (auto index = parseIndex(*rest)) {
            return IndexedKey{IndexedKind::EthernetCapabilities, *index, 0};
        }
    }
    return std::nullopt;
}

std::string patternKey(std::uint32_t port) {
    return std::string(Keys::kPatternPortPrefix) + std::to_string(port);
}

std::string alternativeKey(std::uint32_t port, std::uint32_t alternative) {
    return std::string(Keys::kPatternAlternativePrefix) + std::to_string(alternative) +
           std::string(Keys::kPatternAlternativePortInfix) + std::to_string(port);
}

bool isKnownCapability(std::string_view name) {
    const std::vector<std::string>* all =
        QVDeviceDatabaseEntry::expandCapabilitiesShortcut(Keys::kAllCapabilities);
    return std::find(all->begin(), all->end(), name) != all->end() || name == Keys::kOptional ||
           name == "IS_SERIAL_INTERFACE" || name == "IS_ETHERNET_INTERFACE";
}

template <std::size_t N>
std::string joined(const std::array<std::string_view, N>& words) {
    std::string text;
    for (std::string_view word : words) {
        text += text.empty() ? "" : ", ";
        text += word;
    }
    return text;
}

// The problems of one entry's values, inheritance resolved. The texts never name the entry, so
// that a problem inherited from an ancestor is recognised as the same text.
class ValueChecker {
  public:
    explicit ValueChecker(const qv::Dictionary& values) : _values(values) {}

    std::vector<std::string> run() {
        checkPortLayout();
        checkFlags();
        checkWord(Keys::kNetworkAccessTechnology, Keys::kNetworkAccessTechnologies, "-1");
        checkWord(Keys::kNetworkIPv6Support, Keys::kNetworkIPv6Supports, "-1");
        checkWord(Keys::kDeviceControllingAPIType, Keys::kDeviceAPITypes, "ATInterface");
        checkManufacturer();
        return std::move(_problems);
    }

  private:
    bool present(std::string_view key) const {
        const qv::Value* value = _values.find(key);
        return value != nullptr && value->isPresent();
    }

    void add(std::string problem) { _problems.push_back(std::move(problem)); }

    void checkPortLayout() {
        std::uint32_t described = 0;
        while (present(patternKey(described))) {
            ++described;
        }
        const std::string gap =
            qv::format("%s is missing, which ends the list of ports", patternKey(described));
        checkStrategy(described);
        checkDriverPorts(described);
        for (const auto& [key, value] : _values) {
            std::optional<IndexedKey> indexed = parseIndexedKey(key);
            if (!indexed) {
                continue;
            }
            switch (indexed->kind) {
                case IndexedKind::Pattern:
                    if (indexed->index > described && value.isPresent()) {
                        add(qv::format("%s is never read: %s", key, gap));
                    } else if (indexed->index < described) {
                        checkPattern(key, value);
                    }
                    break;
                case IndexedKind::Alternative:
                    checkAlternative(key, value, *indexed, described, gap);
                    break;
                case IndexedKind::PortCapabilities:
                    if (indexed->index >= described && value.isPresent()) {
                        add(qv::format("%s describes no port: %s", key, gap));
                    }
                    checkCapabilities(key, value);
                    break;
                case IndexedKind::EthernetCapabilities:
                    if (indexed->index > 0) {
                        add(
                            qv::format("%s is never read: only the first Ethernet interface "
                                       "(Ethernet-0) gets capabilities",
                                       key));
                    }
                    checkCapabilities(key, value);
                    break;
            }
        }
    }

    // The layout against what the model's driver gives: no more ports than it has ttys, no
    // position past its last tty, and one interface number per described port.
    void checkDriverPorts(std::uint32_t described) {
        const qv::Value* interfaces = _values.find(Keys::kInterfaces);
        if (interfaces != nullptr && interfaces->isPresent()) {
            const qv::Array* list = interfaces->asArray();
            bool numbers = list != nullptr &&
                           std::all_of(list->begin(), list->end(), [](const qv::Value& item) {
                               return item.isInteger() && item.integerValue() >= 0;
                           });
            if (!numbers) {
                add(qv::format("%s is %s, not a list of interface numbers", Keys::kInterfaces,
                               typeName(*interfaces)));
            } else if (list->size() != described) {
                add(qv::format("%s names %zu interfaces for %u described ports", Keys::kInterfaces,
                               list->size(), described));
            }
        }
        const qv::Value* count = _values.find(Keys::kDriverPortCount);
        if (count == nullptr || count->isAbsent()) {
            return;
        }
        std::optional<long long> ports = wholeInteger(*count);
        if (!ports || *ports < 0) {
            add(qv::format("%s is %s, not a number of ports", Keys::kDriverPortCount,
                           shown(*count)));
            return;
        }
        if (described > *ports) {
            add(qv::format("the layout names %u ports, but the model's driver gives %lld",
                           described, *ports));
        }
        const qv::Value* strategy = _values.find(Keys::kPortIdentificationStrategy);
        if (strategy == nullptr ||
            *strategy != qv::Value(std::string(Keys::kStrategyByPortNumber))) {
            return;
        }
        for (const auto& [key, value] : _values) {
            std::optional<IndexedKey> indexed = parseIndexedKey(key);
            bool readPattern = indexed && indexed->index < described &&
                               (indexed->kind == IndexedKind::Pattern ||
                                indexed->kind == IndexedKind::Alternative);
            const std::string* text = value.asString();
            if (!readPattern || text == nullptr || text->empty() || text->size() > 9 ||
                !std::all_of(text->begin(), text->end(),
                             [](char c) { return c >= '0' && c <= '9'; })) {
                continue;
            }
            if (std::stoll(*text) >= *ports) {
                add(
                    qv::format("%s is position %s, past the last of the %lld ports the model's "
                               "driver gives",
                               key, *text, *ports));
            }
        }
    }

    void checkStrategy(std::uint32_t described) {
        const qv::Value* strategy = _values.find(Keys::kPortIdentificationStrategy);
        if (strategy == nullptr || strategy->isNil()) {
            if (described > 0) {
                add(qv::format("ports are described but %s is missing: no port will be found",
                               Keys::kPortIdentificationStrategy));
            }
            return;
        }
        const std::string* name = strategy->asString();
        if (name != nullptr &&
            std::find(Keys::kKnownStrategies.begin(), Keys::kKnownStrategies.end(), *name) !=
                Keys::kKnownStrategies.end()) {
            _strategy = *name;
            return;
        }
        add(qv::format("unknown port identification strategy %s (known: %s)", shown(*strategy),
                       joined(Keys::kKnownStrategies)));
    }

    void checkAlternative(const std::string& key, const qv::Value& value, const IndexedKey& indexed,
                          std::uint32_t described, const std::string& gap) {
        if (indexed.index >= described) {
            add(qv::format("%s is never read: %s", key, gap));
            return;
        }
        // Counted once per port: an entry may hold any number of alternatives.
        auto [counted, isNew] = _alternativeGaps.try_emplace(indexed.index, 0);
        std::uint32_t& first = counted->second;
        while (isNew && _values.contains(alternativeKey(indexed.index, first))) {
            ++first;
        }
        if (indexed.alternative > first) {
            add(qv::format("%s is never read: %s is missing, which ends the alternatives", key,
                           alternativeKey(indexed.index, first)));
            return;
        }
        if (value.isString() && value.asString()->empty()) {
            add(qv::format("%s is empty", key));
            return;
        }
        checkPattern(key, value);
    }

    void checkPattern(const std::string& key, const qv::Value& value) {
        const std::string* pattern = value.asString();
        if (pattern == nullptr) {
            add(qv::format("%s is %s; port classification matches strings only", key,
                           typeName(value)));
            return;
        }
        if (_strategy == Keys::kStrategyByRegex) {
            std::string error;
            if (!qv::Regex::compile(*pattern, false, &error)) {
                add(qv::format("%s does not compile as a regular expression: %s", key, error));
            }
        } else if (_strategy == Keys::kStrategyByPortNumber) {
            bool digits =
                !pattern->empty() && std::all_of(pattern->begin(), pattern->end(),
                                                 [](char c) { return c >= '0' && c <= '9'; });
            if (!digits) {
                add(qv::format("%s is %s, not a port number (it reads as %d)", key,
                               quoted(*pattern), value.intValue()));
            }
        }
    }

    void checkCapabilities(const std::string& key, const qv::Value& value) {
        if (value.isAbsent()) {
            return;
        }
        const std::string* list = value.asString();
        if (list == nullptr) {
            add(qv::format("%s is %s, not a capability list", key, typeName(value)));
            return;
        }
        std::string_view rest = *list;
        for (;;) {
            std::size_t separator = rest.find(Keys::kCapabilityListSeparator);
            std::string_view piece = rest.substr(0, separator);
            if (!QVDeviceDatabaseEntry::isCapabilityShortcut(piece) && !isKnownCapability(piece)) {
                bool comma = piece.find(',') != std::string_view::npos;
                add(qv::format(
                    "unknown capability %s in %s%s", quoted(piece), key,
                    comma ? " (capabilities are separated by a comma and a blank)" : ""));
            }
            if (separator == std::string_view::npos) {
                break;
            }
            rest.remove_prefix(separator + Keys::kCapabilityListSeparator.size());
        }
    }

    void checkFlags() {
        const qv::Value* disk = _values.find(Keys::kShouldSupressDriverDisk);
        if (disk != nullptr && disk->isPresent()) {
            const std::string* text = disk->asString();
            if (text == nullptr || (*text != "YES" && *text != "NO")) {
                add(
                    qv::format("%s is %s: only the string \"YES\" suppresses the driver disk "
                               "(write \"YES\" or \"NO\")",
                               Keys::kShouldSupressDriverDisk, shown(*disk)));
            }
        }
        const qv::Value* query = _values.find(Keys::kSupressNetworkQueryWhileConnecting);
        if (query != nullptr && query->isPresent()) {
            const std::string* text = query->asString();
            bool saysNo = text != nullptr ? (*text == "NO" || *text == "No" || *text == "no" ||
                                             *text == "false" || *text == "0")
                                          : (query->isNumber() && query->integerValue() == 0 &&
                                             query->doubleValue() == 0.0);
            if (saysNo) {
                add(
                    qv::format("%s is %s, which turns the suppression on: any non-empty value "
                               "does (leave the key out, or empty, to keep it off)",
                               Keys::kSupressNetworkQueryWhileConnecting,
                               text != nullptr ? quoted(*text) : query->description()));
            }
        }
    }

    template <std::size_t N>
    void checkWord(std::string_view key, const std::array<std::string_view, N>& words,
                   const char* otherwise) {
        const qv::Value* value = _values.find(key);
        if (value == nullptr || value->isAbsent()) {
            return;
        }
        const std::string* text = value->asString();
        if (text != nullptr && std::find(words.begin(), words.end(), *text) != words.end()) {
            return;
        }
        add(qv::format("%s is %s; known values: %s (anything else reads as %s)", key, shown(*value),
                       joined(words), otherwise));
    }

    void checkManufacturer() {
        const qv::Value* value = _values.find(Keys::kManufacturer);
        if (value == nullptr || value->isAbsent()) {
            return;
        }
        const std::string* name = value->asString();
        if (name == nullptr || !QVDeviceDatabase::manufacturerNamesToIDs().contains(*name)) {
            add(qv::format("unknown manufacturer %s", shown(*value)));
        }
    }

    const qv::Dictionary& _values;
    std::string _strategy;
    // Port -> its first missing alternative.
    std::unordered_map<std::uint32_t, std::uint32_t> _alternativeGaps;
    std::vector<std::string> _problems;
};

bool isKnownPlainKey(std::string_view key) {
    return std::find(Keys::kPlainKeys.begin(), Keys::kPlainKeys.end(), key) !=
           Keys::kPlainKeys.end();
}

// Families are a few levels deep; a longer chain is a mistake or a hostile file, and resolving
// it for every entry would cost quadratic time.
constexpr std::size_t kMaxChainDepth = 32;

struct Member {
    std::string label;
    const qv::Dictionary* data = nullptr;
    std::shared_ptr<QVDeviceDatabaseEntry> entry;  // nullptr when the member has no ID
    std::vector<std::string> valueProblems;
    bool chainComplete = false;
};

class Check {
  public:
    Check(const qv::Value& root, std::vector<QVDeviceDatabaseProblem>& problems)
        : _problems(problems) {
        collectMembers(root);
    }

    std::size_t memberCount() const { return _members.size(); }

    void run() {
        for (std::size_t i = 0; i < _members.size(); ++i) {
            checkMember(i);
        }
        for (std::size_t i = 0; i < _members.size(); ++i) {
            checkChain(i);
        }
        for (Member& member : _members) {
            if (member.data != nullptr) {
                member.valueProblems = ValueChecker(member.chainComplete && member.entry
                                                        ? member.entry->resolvedDictionary()
                                                        : *member.data)
                                           .run();
            }
        }
        for (std::size_t i = 0; i < _members.size(); ++i) {
            reportValueProblems(i);
        }
        sortByEntry();
    }

  private:
    // Problems are reported in file order of their entries, whichever check found them.
    void add(std::size_t index, std::string message) {
        const std::string& entry = index < _members.size() ? _members[index].label : _fileLabel;
        _problems.push_back({entry, std::move(message)});
        _order.push_back(index);
    }

    void sortByEntry() {
        std::vector<std::size_t> positions(_problems.size());
        for (std::size_t i = 0; i < positions.size(); ++i) {
            positions[i] = i;
        }
        std::stable_sort(positions.begin(), positions.end(),
                         [this](std::size_t a, std::size_t b) { return _order[a] < _order[b]; });
        std::vector<QVDeviceDatabaseProblem> sorted;
        for (std::size_t position : positions) {
            sorted.push_back(std::move(_problems[position]));
        }
        _problems = std::move(sorted);
    }

    void collectMembers(const qv::Value& root) {
        if (const qv::Array* members = root.asArray()) {
            for (std::size_t i = 0; i < members->size(); ++i) {
                addMember(qv::format("entry #%zu", i + 1), (*members)[i]);
            }
        } else if (const qv::Dictionary* members = root.asDictionary()) {
            for (const auto& [name, member] : *members) {
                addMember("entry " + quoted(name), member);
            }
        } else {
            add(_members.size(),
                qv::format("the root is %s, not a list of entries", typeName(root)));
        }
    }

    void addMember(std::string label, const qv::Value& value) {
        Member member;
        member.label = std::move(label);
        member.data = value.asDictionary();
        if (member.data == nullptr) {
            _members.push_back(std::move(member));
            add(_members.size() - 1, qv::format("is %s, not a dictionary", typeName(value)));
            return;
        } else if (member.data->contains(Keys::kQuorvelID)) {
            member.entry = QVDeviceDatabaseEntry::entryFromDictionary(value);
            if (auto id = wholeInteger(*member.data->find(Keys::kQuorvelID))) {
                member.label += qv::format(" (Quorvel ID %lld)", *id);
            }
            _indexOfEntry[member.entry.get()] = _members.size();
            _database.addEntry(member.entry);
        }
        _members.push_back(std::move(member));
    }

    void checkMember(std::size_t index) {
        const Member& member = _members[index];
        if (member.data == nullptr) {
            return;
        }
        const qv::Value* id = member.data->find(Keys::kQuorvelID);
        if (id == nullptr) {
            add(index,
                qv::format("has no %s; the framework refuses the whole file", Keys::kQuorvelID));
        } else if (auto number = wholeInteger(*id); !number) {
            add(index, qv::format("%s is %s, not a number", Keys::kQuorvelID, shown(*id)));
        } else if (*number <= 0 || *number > std::numeric_limits<std::int32_t>::max()) {
            add(index,
                qv::format("Quorvel ID %lld is not valid: it must be greater than 0", *number));
        } else {
            const auto& first = _database.entryForQuorvelID(member.entry->quorvelID());
            if (first != member.entry) {
                add(index, qv::format("Quorvel ID %lld is taken by %s already; lookups "
                                      "find only that one",
                                      *number, _members[_indexOfEntry[first.get()]].label));
            }
        }
        for (const auto& [key, value] : *member.data) {
            if (!isKnownPlainKey(key) && !parseIndexedKey(key)) {
                add(index, qv::format("unknown key %s", quoted(key)));
            }
        }
        const qv::Value* ancestor = member.data->find(Keys::kAncestorQuorvelID);
        if (ancestor != nullptr && !wholeInteger(*ancestor)) {
            add(index, qv::format("%s is %s, not a Quorvel ID", Keys::kAncestorQuorvelID,
                                  shown(*ancestor)));
        }
    }

    // A member's ancestor chain: a missing direct ancestor is reported at the member, a cycle
    // once, at the member of the cycle that comes first in the file, a chain too deep to be a
    // family at the first member past the limit. Only members with a sound chain get their
    // values checked with inheritance resolved.
    void checkChain(std::size_t index) {
        Member& member = _members[index];
        if (!member.entry) {
            return;
        }
        const QVDeviceDatabaseEntry* entry = member.entry.get();
        Chain chain{ChainState::Complete, 0};
        if (entry->hasAncestor()) {
            auto ancestorID = static_cast<std::uint32_t>(entry->ancestorQuorvelID());
            if (!_database.hasEntryForQuorvelID(ancestorID)) {
                add(index, qv::format("ancestor %d names no entry", entry->ancestorQuorvelID()));
                return;
            }
            // Duplicates are no lookup's target, so only first entries are analysed as nodes.
            const QVDeviceDatabaseEntry* first =
                _database.entryForQuorvelID(entry->quorvelID()).get();
            if (first == entry) {
                chain = analyseChain(entry);
            } else {
                chain = analyseChain(_database.entryForQuorvelID(ancestorID).get());
                chain.depth += 1;
                chain.state = chain.state == ChainState::Cycle ? ChainState::Broken : chain.state;
            }
        }
        if (chain.state != ChainState::Complete) {
            return;
        }
        if (chain.depth > kMaxChainDepth) {
            if (chain.depth == kMaxChainDepth + 1) {
                add(index, qv::format("ancestor chain deeper than %zu entries", kMaxChainDepth));
            }
            return;
        }
        member.chainComplete = true;
    }

    enum class ChainState { Complete, Broken, Cycle };
    struct Chain {
        ChainState state;
        std::size_t depth;  // ancestors above the entry
    };

    // Follows the chain from a first entry once, recording every entry on the way, so that the
    // whole file costs linear time whatever its chains look like.
    Chain analyseChain(const QVDeviceDatabaseEntry* start) {
        std::vector<const QVDeviceDatabaseEntry*> path;
        std::unordered_map<const QVDeviceDatabaseEntry*, std::size_t> onPath;
        Chain last{ChainState::Complete, 0};  // what the last entry of `path` gets
        const QVDeviceDatabaseEntry* current = start;
        for (;;) {
            if (auto known = _chains.find(current); known != _chains.end()) {
                if (path.empty()) {
                    return known->second;
                }
                last = known->second.state == ChainState::Complete
                           ? Chain{ChainState::Complete, known->second.depth + 1}
                           : Chain{ChainState::Broken, 0};
                break;
            }
            if (auto at = onPath.find(current); at != onPath.end()) {
                std::vector<const QVDeviceDatabaseEntry*> cycle(
                    path.begin() + static_cast<std::ptrdiff_t>(at->second), path.end());
                reportCycle(cycle);
                for (const QVDeviceDatabaseEntry* member : cycle) {
                    _chains[member] = {ChainState::Cycle, 0};
                }
                path.resize(at->second);
                last = {ChainState::Broken, 0};
                break;
            }
            onPath.emplace(current, path.size());
            path.push_back(current);
            if (!current->hasAncestor()) {
                break;
            }
            auto ancestorID = static_cast<std::uint32_t>(current->ancestorQuorvelID());
            if (!_database.hasEntryForQuorvelID(ancestorID)) {
                last = {ChainState::Broken, 0};
                break;
            }
            current = _database.entryForQuorvelID(ancestorID).get();
        }
        for (std::size_t i = path.size(); i-- > 0;) {
            _chains[path[i]] = last;
            if (last.state == ChainState::Complete) {
                ++last.depth;
            }
        }
        return _chains.at(start);
    }

    void reportCycle(const std::vector<const QVDeviceDatabaseEntry*>& cycle) {
        auto first = std::min_element(cycle.begin(), cycle.end(), [this](auto* a, auto* b) {
            return _indexOfEntry.at(a) < _indexOfEntry.at(b);
        });
        std::string path;
        constexpr std::size_t kShown = 8;
        for (std::size_t i = 0; i < cycle.size() && i < kShown; ++i) {
            const QVDeviceDatabaseEntry* entry =
                cycle[(static_cast<std::size_t>(first - cycle.begin()) + i) % cycle.size()];
            path += qv::format("%d -> ", static_cast<int>(entry->quorvelID()));
        }
        if (cycle.size() > kShown) {
            path += qv::format("... (%zu entries) -> ", cycle.size());
        }
        path += qv::format("%d", static_cast<int>((*first)->quorvelID()));
        add(_indexOfEntry.at(*first),
            qv::format("ancestor cycle %s: a lookup of a key none of them has never ends", path));
    }

    // Problems the member only inherits are left to the ancestor they come from.
    void reportValueProblems(std::size_t index) {
        const Member& member = _members[index];
        const std::vector<std::string>* inherited = nullptr;
        if (member.chainComplete && member.entry->hasAncestor()) {
            const auto& ancestor = _database.entryForQuorvelID(
                static_cast<std::uint32_t>(member.entry->ancestorQuorvelID()));
            inherited = &_members[_indexOfEntry.at(ancestor.get())].valueProblems;
        }
        for (const std::string& problem : member.valueProblems) {
            if (inherited == nullptr ||
                std::find(inherited->begin(), inherited->end(), problem) == inherited->end()) {
                add(index, problem);
            }
        }
    }

    std::vector<QVDeviceDatabaseProblem>& _problems;
    std::vector<Member> _members;
    QVDeviceDatabase _database;
    std::unordered_map<const QVDeviceDatabaseEntry*, std::size_t> _indexOfEntry;
    std::unordered_map<const QVDeviceDatabaseEntry*, Chain> _chains;
    std::vector<std::size_t> _order;
    const std::string _fileLabel = "file";
};

}  // namespace

std::string QVDeviceDatabaseChecker::quoted(std::string_view text) {
    std::string out = "\"";
    for (char c : text) {
        auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (byte < 0x20 || byte == 0x7f) {
            out += qv::format("\\x%02x", static_cast<unsigned>(byte));
        } else {
            out += c;
        }
    }
    out += '"';
    return out;
}

QVDeviceDatabaseChecker::QVDeviceDatabaseChecker(const qv::Value& root) {
    Check check(root, _problems);
    check.run();
    _entryCount = check.memberCount();
}
