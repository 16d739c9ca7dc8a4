#include "Knowledge/QVDeviceDatabase.h"

#include <array>
#include <utility>

#include "Foundation/BoundedFileReader.h"
#include "Foundation/Exception.h"
#include "Foundation/Format.h"
#include "Foundation/Platform.h"
#include "Foundation/PropertyList.h"
#include "Foundation/UTF8.h"

namespace {

constexpr std::array<std::pair<const char*, int>, 15> kManufacturers = {{
    {"Unknown", 0},
    {"Option", 1},
    {"Novatel", 2},
    {"Huawei", 3},
    {"ZTE", 4},
    {"SonyEricsson", 5},
    {"Nokia", 6},
    {"LG", 7},
    {"Samsung", 8},
    {"Motorola", 9},
    {"Siemens", 10},
    {"RIM", 11},
    {"Icera", 12},
    {"Pantech", 13},
    {"Sierra", 14},
}};

}  // namespace

namespace {

// Built once; each database takes a copy (one allocation instead of a dictionary grown key by
// key).
const qv::Dictionary& sharedManufacturerTable() {
    static const qv::Dictionary table = QVDeviceDatabase::manufacturerNamesToIDs();
    return table;
}

}  // namespace

QVDeviceDatabase::QVDeviceDatabase() : _namesToIDs(sharedManufacturerTable()) {}

QVDeviceDatabase::~QVDeviceDatabase() {
    for (const auto& entry : _entries) {
        if (entry->database() == this) {
            entry->setDatabase(nullptr);
        }
    }
}

std::shared_ptr<QVDeviceDatabase> QVDeviceDatabase::databaseFromPropertyListString(
    const std::optional<std::string>& text) {
    auto database = std::make_shared<QVDeviceDatabase>();
    if (!text) {
        return database;
    }
    qv::PropertyListResult parsed = qv::readPropertyList(std::string_view(*text));
    if (!parsed.ok()) {
        throw qv::Exception(kParseErrorException, parsed.error);
    }
    // The parsed tree is thrown away after this: its members are moved into the entries.
    if (qv::Array* members = parsed.value.asArray()) {
        database->_entries.reserve(members->size());
        database->_firstEntryForID.reserve(members->size());
        for (qv::Value& member : *members) {
            database->addEntry(QVDeviceDatabaseEntry::entryFromDictionary(std::move(member)));
        }
    } else if (const qv::Dictionary* members = parsed.value.asDictionary()) {
        for (const auto& [name, member] : *members) {
            database->addEntry(QVDeviceDatabaseEntry::entryFromDictionary(
                std::move(const_cast<qv::Value&>(member))));
        }
    } else {
        throw qv::Exception(qv::kNSInternalInconsistencyException,
                            "Device database is neither a list nor a dictionary of entries");
    }
    return database;
}

std::optional<std::string> QVDeviceDatabase::readDatabaseText(const std::string& path,
                                                              std::string* reason) {
    std::optional<std::string> text =
        qv::readFileUpTo(path, qv::kMaxPropertyListSize, qv::FileKinds::RegularOnly, reason);
    if (text && !qv::isValidUTF8(*text)) {
        if (reason != nullptr) {
            *reason = "is not UTF-8 text";
        }
        return std::nullopt;
    }
    return text;
}

std::shared_ptr<QVDeviceDatabase> QVDeviceDatabase::databaseFromFile(const std::string& path) {
    return databaseFromPropertyListString(readDatabaseText(path));
}

std::shared_ptr<QVDeviceDatabase> QVDeviceDatabase::databaseFromBundle() {
    std::optional<std::string> path = qv::Bundle::pathForResource("DeviceDatabase", "plist");
    return databaseFromPropertyListString(path ? readDatabaseText(*path) : std::nullopt);
}

void QVDeviceDatabase::addEntry(std::shared_ptr<QVDeviceDatabaseEntry> entry) {
    if (!entry) {
        return;
    }
    entry->setDatabase(this);
    _firstEntryForID.try_emplace(entry->quorvelID(), _entries.size());
    _entries.push_back(std::move(entry));
}

bool QVDeviceDatabase::hasEntryForQuorvelID(std::uint32_t quorvelID) const {
    return _firstEntryForID.count(quorvelID) != 0;
}

const std::shared_ptr<QVDeviceDatabaseEntry>& QVDeviceDatabase::entryForQuorvelID(
    std::uint32_t quorvelID) const {
    auto found = _firstEntryForID.find(quorvelID);
    if (found == _firstEntryForID.end()) {
        raiseNoEntryWithQuorvelID(quorvelID);
    }
    return _entries[found->second];
}

void QVDeviceDatabase::raiseNoEntryWithQuorvelID(std::uint32_t quorvelID) {
    throw qv::Exception(
        qv::kNSInternalInconsistencyException,
        qv::format("Database has no entry with Quorvel ID <%d>", static_cast<int>(quorvelID)));
}

qv::Dictionary QVDeviceDatabase::manufacturerNamesToIDs() {
    qv::Dictionary table;
    for (const auto& [name, number] : kManufacturers) {
        table.set(name, qv::Value(number));
    }
    return table;
}

std::int32_t QVDeviceDatabase::manufacturerIDFromName(const qv::Value& name) const {
    const std::string* text = name.asString();
    if (text == nullptr) {
        return -1;
    }
    const qv::Value* number = _namesToIDs.find(*text);
    return number != nullptr ? number->intValue() : -1;
}

std::int32_t QVDeviceDatabase::manufacturerIDFromEntry(const QVDeviceDatabaseEntry* entry) const {
    return entry != nullptr ? manufacturerIDFromName(entry->manufacturerName()) : -1;
}

std::string QVDeviceDatabase::description() const {
    qv::Array described;
    for (const auto& entry : _entries) {
        described.emplace_back(qv::Value(entry->deviceData()));
    }
    return qv::Value(std::move(described)).description();
}
