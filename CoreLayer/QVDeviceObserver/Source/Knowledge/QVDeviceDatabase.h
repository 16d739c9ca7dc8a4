// QVDeviceDatabase: the per-model knowledge the framework ships as the resource "DeviceDatabase"
// of type "plist": a list of QVDeviceDatabaseEntry in file order, looked up by Quorvel ID, and the
// manufacturer table. The device monitor builds it once at start-up and afterwards only reads
// it. Used on the framework's thread only; not copyable (entries point back at it).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Foundation/Object.h"
#include "Foundation/Value.h"
#include "Knowledge/QVDeviceDatabaseEntry.h"

class QVDeviceDatabase : public qv::Object {
  public:
    using EntryList = std::vector<std::shared_ptr<QVDeviceDatabaseEntry>>;

    // The name of the exception raised for text that is not a property list.
    static constexpr const char* kParseErrorException = "NSParseErrorException";

    // init: no entries, the manufacturer table built.
    QVDeviceDatabase();
    // Clears the back-reference of every entry, so entries kept by device records stop climbing.
    ~QVDeviceDatabase() override;
    QVDeviceDatabase(const QVDeviceDatabase&) = delete;
    QVDeviceDatabase& operator=(const QVDeviceDatabase&) = delete;

    // One entry per member of the root collection (an array of dictionaries, or a dictionary
    // whose values are the entries), in order. No text (nullopt) gives an empty database. Text
    // that is not a text property list raises kParseErrorException with the parser's message; a
    // root that is not a collection raises NSInternalInconsistencyException; a member without an
    // ID raises as entryFromDictionary does, so one bad entry refuses the whole file.
    static std::shared_ptr<QVDeviceDatabase> databaseFromPropertyListString(
        const std::optional<std::string>& text);
    // The file read as UTF-8 text and passed to databaseFromPropertyListString. A missing or
    // unreadable file, one that is not UTF-8 or one too large to be a property list gives no text.
    static std::shared_ptr<QVDeviceDatabase> databaseFromFile(const std::string& path);
    // The framework's own database: resource "DeviceDatabase" of type "plist" in the bundle.
    static std::shared_ptr<QVDeviceDatabase> databaseFromBundle();
    // The text of a database file, or nullopt as described at databaseFromFile, with the reason
    // in `reason` when given (the reader's words, or "is not UTF-8 text"). Only a regular file is
    // read: a FIFO or device node would make the framework wait or read without end.
    static std::optional<std::string> readDatabaseText(const std::string& path,
                                                       std::string* reason = nullptr);

    const EntryList& entries() const { return _entries; }
    // Points the entry back at this database, then appends it. Duplicate IDs are kept; lookups
    // find the first.
    void addEntry(std::shared_ptr<QVDeviceDatabaseEntry> entry);
    bool hasEntryForQuorvelID(std::uint32_t quorvelID) const;
    // The first entry with the ID; raises NSInternalInconsistencyException "Database has no entry
    // with Quorvel ID <%d>" when there is none.
    const std::shared_ptr<QVDeviceDatabaseEntry>& entryForQuorvelID(std::uint32_t quorvelID) const;
    // The same exception, for a lookup that had to give up on an ID.
    [[noreturn]] static void raiseNoEntryWithQuorvelID(std::uint32_t quorvelID);

    // The complete manufacturer table: "Unknown" 0, "Option" 1, ... "Sierra" 14.
    static qv::Dictionary manufacturerNamesToIDs();
    // The number for a name in the table; -1 for any other name, nil or a value that is not a
    // string.
    std::int32_t manufacturerIDFromName(const qv::Value& name) const;
    std::int32_t manufacturerIDFromEntry(const QVDeviceDatabaseEntry* entry) const;

    std::string description() const override;

  private:
    EntryList _entries;
    qv::Dictionary _namesToIDs;
    // Quorvel ID -> position of the first entry with it.
    std::unordered_map<std::uint32_t, std::size_t> _firstEntryForID;
};
