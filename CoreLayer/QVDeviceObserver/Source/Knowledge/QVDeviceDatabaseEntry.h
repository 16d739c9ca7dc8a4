// QVDeviceDatabaseEntry: what the framework knows about one device model, keyed by Quorvel ID:
// the raw key/value pairs of the model's dictionary in the device database file, read through
// accessors that give the keys their meaning. An entry may name an ancestor entry; every key the
// entry lacks is then looked up in the ancestor, and so on up the chain.
//
// Ownership: the database owns its entries (shared_ptr, so device records may keep theirs); the
// entry's back-reference to its database is a plain pointer that the database clears when it
// goes away. Without a database an entry has no ancestor to climb to.
//
// Hostile files: a lookup never recurses and never climbs more often than the database has
// entries, so an ancestor cycle cannot hang or overflow the stack; a climb that ends at a missing
// ancestor or goes round a cycle raises the missing-entry exception of entryForQuorvelID, as the
// database would for any absent ID. Values of the wrong type read as documented at each accessor.
// Used on the framework's thread only.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Foundation/Object.h"
#include "Foundation/Value.h"

class QVDeviceDatabase;

// The capability set of the device model (the same type as in Model/QVCapabilitySet.h).
using QVCapabilitySet = std::set<std::string, std::less<>>;

// One described port of an entry, in the form port classification reads it: the port's main
// pattern, its alternative patterns in the order they are tried, and the capabilities the found
// port gets. How a pattern is read depends on the entry's portIdentificationStrategy():
//   "ByPortNumber" - the pattern's leading integer is the 0-based position in the device's list of
//                    port paths ("/dev/cu.ttyUSB0", ... in interface order);
//   "ByFileEnding" - the path ends with the pattern, letter case ignored;
//   "ByRegex"      - the whole path matches the pattern (ICU syntax).
// A pattern is normally a string; a list is tolerated by the file format and passed on as is.
struct QVDatabasePortDescription {
    std::uint32_t index = 0;
    qv::Value pattern;
    std::vector<qv::Value> alternativePatterns;
    QVCapabilitySet capabilities;
    // NO when the capabilities hold "Optional": the device may lack the port.
    bool required = true;

    // The dictionary form: the pattern under "DeviceDatabase.Pattern", the capabilities (an
    // array in ascending order) under "DeviceDatabase.Capabilities", alternative A under
    // "DeviceDatabase.PatternAlternative_A".
    qv::Value toDictionary() const;
};

// Everything port classification reads from an entry, resolved through the ancestors once:
// the strategy (portIdentificationStrategy()), the described ports
// (portIdentificationPatternsAndCapabilities()) and the capabilities of network interface 0.
struct QVDatabasePortLayout {
    qv::Value strategy;
    std::vector<QVDatabasePortDescription> ports;
    QVCapabilitySet ethernetCapabilities;
};

class QVDeviceDatabaseEntry : public qv::Object {
  public:
    // entryWithQuorvelID: / initWithQuorvelID: - empty data but for the ancestor, set to -1.
    static std::shared_ptr<QVDeviceDatabaseEntry> entryWithQuorvelID(std::uint32_t quorvelID);
    explicit QVDeviceDatabaseEntry(std::uint32_t quorvelID);
    ~QVDeviceDatabaseEntry() override;
    QVDeviceDatabaseEntry(const QVDeviceDatabaseEntry&) = delete;
    QVDeviceDatabaseEntry& operator=(const QVDeviceDatabaseEntry&) = delete;

    // An entry with the dictionary's "DeviceDatabase.QuorvelID" (read by integer value; a value
    // that is neither a number nor a string reads as 0) and every key of the dictionary copied
    // in, in order. Raises NSInternalInconsistencyException "QuorvelID not found in dictionary:
    // %@" when the key is missing or the value is not a dictionary at all.
    static std::shared_ptr<QVDeviceDatabaseEntry> entryFromDictionary(const qv::Value& dictionary);
    // The same, taking the values over instead of copying them (the database load).
    static std::shared_ptr<QVDeviceDatabaseEntry> entryFromDictionary(qv::Value&& dictionary);

    std::uint32_t quorvelID() const { return _quorvelID; }
    void setDatabase(QVDeviceDatabase* database);
    QVDeviceDatabase* database() const { return _database; }
    // The description of the entry's own data dictionary.
    std::string description() const override;

    // ---- raw data ----
    // setObject:forKey: - into this entry's own dictionary only.
    void setObject(qv::Value object, std::string key);
    // The own value, else the ancestors' (nearest first), else nil. An own empty string is a
    // value and stops the climb. The reference stays valid until an entry of the chain changes
    // or the database goes away.
    const qv::Value& objectForKey(std::string_view key) const;
    bool hasKey(std::string_view key) const;
    // This entry's own keys, in file order.
    const qv::Dictionary& deviceData() const { return _deviceData; }
    // Every key the entry answers, its own first, then each ancestor's keys it does not mask.
    qv::Dictionary resolvedDictionary() const;

    // ---- inheritance ----
    void setAncestorQuorvelID(std::int32_t ancestorQuorvelID);
    // The stored ancestor by integer value; a value that is neither a number nor a string (a
    // hostile file) reads as -1, no ancestor.
    std::int32_t ancestorQuorvelID() const;
    bool hasAncestor() const { return ancestorQuorvelID() != -1; }
    // The database's entryForQuorvelID of the ancestor (raises when it has none); nullptr when
    // there is no ancestor or no database.
    std::shared_ptr<QVDeviceDatabaseEntry> ancestor() const;
    // The entries a lookup climbs through, nearest first, without this one. Stops quietly where
    // the chain breaks (missing ancestor, cycle, no database); `complete` tells whether it did.
    std::vector<std::shared_ptr<QVDeviceDatabaseEntry>> ancestors(bool* complete = nullptr) const;

    // ---- stored objects, returned as they are ----
    const qv::Value& portIdentificationStrategy() const;
    const qv::Value& manufacturerName() const;
    const qv::Value& configurationSequence3GPreferred() const;
    const qv::Value& configurationSequence3GOnly() const;
    const qv::Value& configurationSequence2GPreferred() const;
    const qv::Value& configurationSequence2GOnly() const;
    const qv::Value& configurationSequence4GPreferred() const;
    const qv::Value& configurationSequence4GOnly() const;
    // The doubled "G" of the name is the interface's; the key has a single one.
    const qv::Value& configurationSequence4G3GGOnly() const;

    // The owning database's number for manufacturerName(): -1 for a name outside the table, 0
    // (as from nil) when the entry belongs to no database.
    std::int32_t manufacturerID() const;

    // ---- port layout, read by USB port classification ----
    // "DeviceDatabase.Pattern.Port-<port>".
    const qv::Value& portIdentificationPatternAtIndex(std::uint32_t port) const;
    // "DeviceDatabase.PatternAlternative-<alternative>.Port-<port>"; nil past the last.
    const qv::Value& portIdentificationAltPatternForPortAtIndex(std::uint32_t port,
                                                                std::uint32_t alternative) const;
    // Parsed from "DeviceDatabase.Capabilities.Port-<port>" / ".Ethernet-<index>".
    QVCapabilitySet portIdentificationCapabilitiesAtIndex(std::uint32_t port) const;
    QVCapabilitySet ethernetInterfaceCapabilitiesAtIndex(std::uint32_t index) const;
    // Whether port `port` has a present pattern (the capabilities are not looked at).
    bool hasPortIdentificationPatternAndCapabilitiesAtIndex(std::uint32_t port) const;
    // The described ports from 0 up to the first without a pattern; alternatives of each from 0
    // up to the first gap. Empty when port 0 has no pattern.
    std::vector<QVDatabasePortDescription> portIdentificationPatternsAndCapabilities() const;
    bool isMissingPortMappings() const;
    bool deviceShouldHaveSerialPorts() const { return !isMissingPortMappings(); }
    // YES unless the port's capabilities hold "Optional".
    bool isPortRequired(std::uint32_t port) const;
    // The layout as the accessors above answer it now, kept until an entry or database changes
    // (any entry's setObject, any setDatabase). nullptr when reading it raises (an ancestor is
    // missing or the chain loops): callers then read key by key and raise where they always did.
    std::shared_ptr<const QVDatabasePortLayout> portLayout() const;

    // ---- flags ----
    // YES only for the string "YES" (a boolean true does not count); NO when absent.
    bool shouldSupressDisk() const;
    // YES for any present value at all, "NO" included; NO when absent.
    bool supressNetworkQueryWhileConnecting() const;

    // ---- enumerations (exact, case-sensitive string comparison) ----
    // "GSM" 0, "CDMA" 1, otherwise -1.
    std::int32_t networkAccessTechnology() const;
    // "IPv6" 0, "IPv4v6" 1, otherwise -1.
    std::int32_t networkIPv6Support() const;
    // "ATInterface" 0, "HuaweiWebApi" 1, "HalcyraWebApi" 2, otherwise 0 (the AT interface).
    std::int32_t deviceAPIType() const;

    // ---- capability lists ----
    // Split at every ", "; shortcuts expand, other pieces stay as written. Nil, an empty string
    // or a value that is not a string gives the empty set.
    static QVCapabilitySet capabilitiesFromString(const qv::Value& text);
    // The expansion of a shortcut in its order, or nullptr when the word is none.
    static const std::vector<std::string>* expandCapabilitiesShortcut(std::string_view word);
    static bool isCapabilityShortcut(std::string_view word) {
        return expandCapabilitiesShortcut(word) != nullptr;
    }

    // Only this class can name the type: the data must already have the ancestor key first.
    struct OrderedData;
    QVDeviceDatabaseEntry(std::uint32_t quorvelID, OrderedData&& data);

  private:
    // The entry a lookup that missed here goes on to, or nullptr at the end of the chain.
    // Raises the missing-entry exception for a missing ancestor or after `climbs` exceeds the
    // number of entries (a cycle).
    const QVDeviceDatabaseEntry* nextInChain(std::size_t& climbs) const;
    const qv::Value* ownValue(std::string_view key) const { return _deviceData.find(key); }

    std::uint32_t _quorvelID;
    qv::Dictionary _deviceData;
    QVDeviceDatabase* _database = nullptr;
    // portLayout()'s answer and the change count it was read at (0: never read).
    mutable std::shared_ptr<const QVDatabasePortLayout> _portLayout;
    mutable std::uint64_t _portLayoutGeneration = 0;
};
