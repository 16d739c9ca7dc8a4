#include "Knowledge/QVDeviceDatabaseEntry.h"

#include <array>
#include <atomic>

#include "Foundation/Exception.h"
#include "Foundation/Format.h"
#include "Knowledge/QVDeviceDatabase.h"
#include "Knowledge/QVDeviceDatabaseKeys.h"

namespace Keys = QVDeviceDatabaseKeys;

namespace {

std::string indexedKey(std::string_view prefix, std::uint32_t index) {
    std::string key(prefix);
    key += std::to_string(index);
    return key;
}

std::string alternativePatternKey(std::uint32_t port, std::uint32_t alternative) {
    std::string key = indexedKey(Keys::kPatternAlternativePrefix, alternative);
    key += Keys::kPatternAlternativePortInfix;
    key += std::to_string(port);
    return key;
}

// The position of the stored string among `values`, or `otherwise`.
template <std::size_t N>
std::int32_t enumerationValue(const qv::Value& stored,
                              const std::array<std::string_view, N>& values,
                              std::int32_t otherwise) {
    const std::string* text = stored.asString();
    if (text == nullptr) {
        return otherwise;
    }
    for (std::size_t i = 0; i < N; ++i) {
        if (*text == values[i]) {
            return static_cast<std::int32_t>(i);
        }
    }
    return otherwise;
}

const std::vector<std::string>& coreProcedureCapabilities() {
    static const std::vector<std::string> names = {
        "GroundInit",       "SignalStrength", "ConnectInit",       "DeviceRecognition",
        "RadioLinkAccess",  "DeviceInfo",     "NetworkQuery",      "BandSelection",
        "QuickConnectInfo", "SimSecurity",    "PLMNMenuSelection", "ControlWWANInterface",
        "USSDServices",     "GPSControl",     "GPSData",           "Unsolicited"};
    return names;
}

const std::vector<std::string>& allCapabilities() {
    static const std::vector<std::string> names = [] {
        std::vector<std::string> all = coreProcedureCapabilities();
        all.emplace_back("DataTransport");
        all.emplace_back("SMS");
        return all;
    }();
    return names;
}

}  // namespace

qv::Value QVDatabasePortDescription::toDictionary() const {
    qv::Dictionary dictionary;
    dictionary.set(std::string(Keys::kPortPattern), pattern);
    qv::Array names(capabilities.begin(), capabilities.end());
    dictionary.set(std::string(Keys::kPortCapabilities), qv::Value(std::move(names)));
    for (std::size_t a = 0; a < alternativePatterns.size(); ++a) {
        dictionary.set(qv::format(Keys::kPortAlternativeFormat, Keys::kPortAlternative,
                                  static_cast<unsigned long>(a)),
                       alternativePatterns[a]);
    }
    return qv::Value(std::move(dictionary));
}

std::shared_ptr<QVDeviceDatabaseEntry> QVDeviceDatabaseEntry::entryWithQuorvelID(
    std::uint32_t quorvelID) {
    return std::make_shared<QVDeviceDatabaseEntry>(quorvelID);
}

QVDeviceDatabaseEntry::QVDeviceDatabaseEntry(std::uint32_t quorvelID) : _quorvelID(quorvelID) {
    setAncestorQuorvelID(-1);
}

QVDeviceDatabaseEntry::~QVDeviceDatabaseEntry() {
    _database = nullptr;
}

struct QVDeviceDatabaseEntry::OrderedData {
    qv::Dictionary pairs;
};

QVDeviceDatabaseEntry::QVDeviceDatabaseEntry(std::uint32_t quorvelID, OrderedData&& data)
    : _quorvelID(quorvelID), _deviceData(std::move(data.pairs)) {}

namespace {

// The order an entry made by the constructor and then filled key by key would have: the ancestor
// key first (created with the entry as -1, then overwritten in place by the dictionary's own
// value), then every other key in the dictionary's order.
qv::Dictionary entryOrder(qv::Dictionary pairs) {
    qv::Value* ancestor = pairs.find(Keys::kAncestorQuorvelID);
    qv::Value first = ancestor != nullptr ? std::move(*ancestor) : qv::Value(-1);
    pairs.setFirst(std::string(Keys::kAncestorQuorvelID), std::move(first));
    return pairs;
}

}  // namespace

std::shared_ptr<QVDeviceDatabaseEntry> QVDeviceDatabaseEntry::entryFromDictionary(
    const qv::Value& dictionary) {
    const qv::Dictionary* pairs = dictionary.asDictionary();
    const qv::Value* id = pairs != nullptr ? pairs->find(Keys::kQuorvelID) : nullptr;
    if (id == nullptr) {
        throw qv::Exception(qv::kNSInternalInconsistencyException,
                            qv::format("QuorvelID not found in dictionary: %@", dictionary));
    }
    return std::make_shared<QVDeviceDatabaseEntry>(static_cast<std::uint32_t>(id->intValue()),
                                                   OrderedData{entryOrder(*pairs)});
}

std::shared_ptr<QVDeviceDatabaseEntry> QVDeviceDatabaseEntry::entryFromDictionary(
    qv::Value&& dictionary) {
    const qv::Dictionary* pairs = dictionary.asDictionary();
    const qv::Value* id = pairs != nullptr ? pairs->find(Keys::kQuorvelID) : nullptr;
    if (id == nullptr) {
        return entryFromDictionary(static_cast<const qv::Value&>(dictionary));  // raises
    }
    // Read before the keys are taken: the ID's own key is one of them.
    const auto quorvelID = static_cast<std::uint32_t>(id->intValue());
    // The dictionary is ours (moved in): it becomes the entry's own.
    return std::make_shared<QVDeviceDatabaseEntry>(
        quorvelID, OrderedData{entryOrder(std::move(*dictionary.asDictionary()))});
}

std::string QVDeviceDatabaseEntry::description() const {
    return qv::Value(_deviceData).description();
}

namespace {

// Counts changes to any entry or to any entry's database: a port layout read at one count is
// still right as long as the count has not moved. Starts at 1 so that 0 means "never read".
std::atomic<std::uint64_t> gChanges{1};

void noteChange() {
    gChanges.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

void QVDeviceDatabaseEntry::setObject(qv::Value object, std::string key) {
    noteChange();
    _deviceData.set(std::move(key), std::move(object));
}

void QVDeviceDatabaseEntry::setDatabase(QVDeviceDatabase* database) {
    noteChange();
    _database = database;
}

const QVDeviceDatabaseEntry* QVDeviceDatabaseEntry::nextInChain(std::size_t& climbs) const {
    std::int32_t ancestorID = ancestorQuorvelID();
    if (ancestorID == -1 || _database == nullptr) {
        return nullptr;
    }
    // A chain without a cycle visits every entry at most once; climbing more often than that
    // means the chain loops, and it would never end. Said as what it is: every entry on the way
    // exists.
    if (++climbs > _database->entries().size()) {
        throw qv::Exception(
            qv::kNSInternalInconsistencyException,
            qv::format("Database entries inherit in a cycle: Quorvel ID <%d> is its own ancestor",
                       static_cast<int>(ancestorID)));
    }
    return _database->entryForQuorvelID(static_cast<std::uint32_t>(ancestorID)).get();
}

const qv::Value& QVDeviceDatabaseEntry::objectForKey(std::string_view key) const {
    std::size_t climbs = 0;
    for (const QVDeviceDatabaseEntry* entry = this; entry != nullptr;
         entry = entry->nextInChain(climbs)) {
        if (const qv::Value* value = entry->ownValue(key)) {
            return *value;
        }
    }
    return qv::Value::nil();
}

bool QVDeviceDatabaseEntry::hasKey(std::string_view key) const {
    std::size_t climbs = 0;
    for (const QVDeviceDatabaseEntry* entry = this; entry != nullptr;
         entry = entry->nextInChain(climbs)) {
        if (entry->ownValue(key) != nullptr) {
            return true;
        }
    }
    return false;
}

qv::Dictionary QVDeviceDatabaseEntry::resolvedDictionary() const {
    qv::Dictionary resolved;
    std::size_t climbs = 0;
    for (const QVDeviceDatabaseEntry* entry = this; entry != nullptr;
         entry = entry->nextInChain(climbs)) {
        for (const auto& [key, value] : entry->_deviceData) {
            if (!resolved.contains(key)) {
                resolved.set(key, value);
            }
        }
    }
    return resolved;
}

void QVDeviceDatabaseEntry::setAncestorQuorvelID(std::int32_t ancestorQuorvelID) {
    setObject(qv::Value(ancestorQuorvelID), std::string(Keys::kAncestorQuorvelID));
}

std::int32_t QVDeviceDatabaseEntry::ancestorQuorvelID() const {
    // Always an own key (set at creation), so reading it never climbs.
    const qv::Value* stored = ownValue(Keys::kAncestorQuorvelID);
    if (stored == nullptr || !(stored->isNumber() || stored->isString())) {
        return -1;
    }
    return stored->intValue();
}

std::shared_ptr<QVDeviceDatabaseEntry> QVDeviceDatabaseEntry::ancestor() const {
    if (!hasAncestor() || _database == nullptr) {
        return nullptr;
    }
    return _database->entryForQuorvelID(static_cast<std::uint32_t>(ancestorQuorvelID()));
}

std::vector<std::shared_ptr<QVDeviceDatabaseEntry>> QVDeviceDatabaseEntry::ancestors(
    bool* complete) const {
    std::vector<std::shared_ptr<QVDeviceDatabaseEntry>> chain;
    bool whole = true;
    const QVDeviceDatabaseEntry* entry = this;
    while (entry->hasAncestor() && entry->_database != nullptr) {
        auto id = static_cast<std::uint32_t>(entry->ancestorQuorvelID());
        if (chain.size() >= _database->entries().size() || !_database->hasEntryForQuorvelID(id)) {
            whole = false;
            break;
        }
        chain.push_back(_database->entryForQuorvelID(id));
        entry = chain.back().get();
    }
    if (complete != nullptr) {
        *complete = whole;
    }
    return chain;
}

const qv::Value& QVDeviceDatabaseEntry::portIdentificationStrategy() const {
    return objectForKey(Keys::kPortIdentificationStrategy);
}

const qv::Value& QVDeviceDatabaseEntry::manufacturerName() const {
    return objectForKey(Keys::kManufacturer);
}

const qv::Value& QVDeviceDatabaseEntry::configurationSequence3GPreferred() const {
    return objectForKey(Keys::kSequence3GPreferred);
}

const qv::Value& QVDeviceDatabaseEntry::configurationSequence3GOnly() const {
    return objectForKey(Keys::kSequence3GOnly);
}

const qv::Value& QVDeviceDatabaseEntry::configurationSequence2GPreferred() const {
    return objectForKey(Keys::kSequence2GPreferred);
}

const qv::Value& QVDeviceDatabaseEntry::configurationSequence2GOnly() const {
    return objectForKey(Keys::kSequence2GOnly);
}

const qv::Value& QVDeviceDatabaseEntry::configurationSequence4GPreferred() const {
    return objectForKey(Keys::kSequence4GPreferred);
}

const qv::Value& QVDeviceDatabaseEntry::configurationSequence4GOnly() const {
    return objectForKey(Keys::kSequence4GOnly);
}

const qv::Value& QVDeviceDatabaseEntry::configurationSequence4G3GGOnly() const {
    return objectForKey(Keys::kSequence4G3GOnly);
}

std::int32_t QVDeviceDatabaseEntry::manufacturerID() const {
    return _database != nullptr ? _database->manufacturerIDFromName(manufacturerName()) : 0;
}

const qv::Value& QVDeviceDatabaseEntry::portIdentificationPatternAtIndex(std::uint32_t port) const {
    return objectForKey(indexedKey(Keys::kPatternPortPrefix, port));
}

const qv::Value& QVDeviceDatabaseEntry::portIdentificationAltPatternForPortAtIndex(
    std::uint32_t port, std::uint32_t alternative) const {
    return objectForKey(alternativePatternKey(port, alternative));
}

QVCapabilitySet QVDeviceDatabaseEntry::portIdentificationCapabilitiesAtIndex(
    std::uint32_t port) const {
    return capabilitiesFromString(objectForKey(indexedKey(Keys::kCapabilitiesPortPrefix, port)));
}

QVCapabilitySet QVDeviceDatabaseEntry::ethernetInterfaceCapabilitiesAtIndex(
    std::uint32_t index) const {
    return capabilitiesFromString(
        objectForKey(indexedKey(Keys::kCapabilitiesEthernetPrefix, index)));
}

bool QVDeviceDatabaseEntry::hasPortIdentificationPatternAndCapabilitiesAtIndex(
    std::uint32_t port) const {
    return portIdentificationPatternAtIndex(port).isPresent();
}

std::vector<QVDatabasePortDescription>
QVDeviceDatabaseEntry::portIdentificationPatternsAndCapabilities() const {
    std::vector<QVDatabasePortDescription> ports;
    for (std::uint32_t port = 0; hasPortIdentificationPatternAndCapabilitiesAtIndex(port); ++port) {
        QVDatabasePortDescription description;
        description.index = port;
        description.pattern = portIdentificationPatternAtIndex(port);
        description.capabilities = portIdentificationCapabilitiesAtIndex(port);
        description.required = description.capabilities.count(Keys::kOptional) == 0;
        for (std::uint32_t a = 0;; ++a) {
            const qv::Value& alternative = portIdentificationAltPatternForPortAtIndex(port, a);
            if (alternative.isNil()) {
                break;
            }
            description.alternativePatterns.push_back(alternative);
        }
        ports.push_back(std::move(description));
    }
    return ports;
}

bool QVDeviceDatabaseEntry::isMissingPortMappings() const {
    // The walk's result is empty exactly when port 0 has no pattern.
    return !hasPortIdentificationPatternAndCapabilitiesAtIndex(0);
}

std::shared_ptr<const QVDatabasePortLayout> QVDeviceDatabaseEntry::portLayout() const {
    const std::uint64_t now = gChanges.load(std::memory_order_relaxed);
    if (_portLayoutGeneration == now) {
        return _portLayout;
    }
    std::shared_ptr<QVDatabasePortLayout> layout;
    try {
        layout = std::make_shared<QVDatabasePortLayout>();
        layout->strategy = portIdentificationStrategy();
        layout->ports = portIdentificationPatternsAndCapabilities();
        layout->ethernetCapabilities = ethernetInterfaceCapabilitiesAtIndex(0);
    } catch (const qv::Exception&) {
        // A broken chain: nothing kept but the fact, until something changes.
        layout = nullptr;
    }
    _portLayout = std::move(layout);
    _portLayoutGeneration = now;
    return _portLayout;
}

bool QVDeviceDatabaseEntry::isPortRequired(std::uint32_t port) const {
    return portIdentificationCapabilitiesAtIndex(port).count(Keys::kOptional) == 0;
}

bool QVDeviceDatabaseEntry::shouldSupressDisk() const {
    const qv::Value& value = objectForKey(Keys::kShouldSupressDriverDisk);
    if (value.isAbsent()) {
        return false;
    }
    const std::string* text = value.asString();
    return text != nullptr && *text == "YES";
}

bool QVDeviceDatabaseEntry::supressNetworkQueryWhileConnecting() const {
    return objectForKey(Keys::kSupressNetworkQueryWhileConnecting).isPresent();
}

std::int32_t QVDeviceDatabaseEntry::networkAccessTechnology() const {
    return enumerationValue(objectForKey(Keys::kNetworkAccessTechnology),
                            Keys::kNetworkAccessTechnologies, -1);
}

std::int32_t QVDeviceDatabaseEntry::networkIPv6Support() const {
    return enumerationValue(objectForKey(Keys::kNetworkIPv6Support), Keys::kNetworkIPv6Supports,
                            -1);
}

std::int32_t QVDeviceDatabaseEntry::deviceAPIType() const {
    return enumerationValue(objectForKey(Keys::kDeviceControllingAPIType), Keys::kDeviceAPITypes,
                            0);
}

QVCapabilitySet QVDeviceDatabaseEntry::capabilitiesFromString(const qv::Value& text) {
    QVCapabilitySet capabilities;
    const std::string* list = text.asString();
    if (list == nullptr || list->empty()) {
        return capabilities;
    }
    std::string_view rest = *list;
    for (;;) {
        std::size_t separator = rest.find(Keys::kCapabilityListSeparator);
        std::string_view piece = rest.substr(0, separator);
        if (const std::vector<std::string>* expansion = expandCapabilitiesShortcut(piece)) {
            capabilities.insert(expansion->begin(), expansion->end());
        } else {
            capabilities.emplace(piece);
        }
        if (separator == std::string_view::npos) {
            break;
        }
        rest.remove_prefix(separator + Keys::kCapabilityListSeparator.size());
    }
    return capabilities;
}

const std::vector<std::string>* QVDeviceDatabaseEntry::expandCapabilitiesShortcut(
    std::string_view word) {
    if (word == Keys::kAllCoreProcedureCapabilities) {
        return &coreProcedureCapabilities();
    }
    if (word == Keys::kAllCapabilities) {
        return &allCapabilities();
    }
    return nullptr;
}
