#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "Foundation/Exception.h"
#include "Foundation/Platform.h"
#include "Knowledge/QVDeviceDatabase.h"

namespace {

std::string fixture(const char* name) {
    return std::string(QV_TEST_DATA_DIR) + "/Database/" + name;
}

TEST(QVDeviceDatabase, LoadsEntriesInFileOrderFromEitherTextForm) {
    auto database = QVDeviceDatabase::databaseFromFile(fixture("Family.plist"));
    ASSERT_EQ(database->entries().size(), 3u);
    EXPECT_EQ(database->entries()[2]->quorvelID(), 1002u);  // a numeric string reads as its number
    for (const auto& entry : database->entries()) {
        EXPECT_EQ(entry->database(), database.get());
    }
    const auto& regex = database->entryForQuorvelID(1002);
    EXPECT_EQ(regex->portIdentificationStrategy(), qv::Value("ByRegex"));
    EXPECT_EQ(regex->portIdentificationAltPatternForPortAtIndex(0, 0),
              qv::Value("/dev/cu\\.ttyUSB0"));
    // The port-1 capabilities come from the family, the pattern is the model's own.
    EXPECT_FALSE(regex->isPortRequired(1));
    EXPECT_EQ(regex->deviceAPIType(), 1);
    EXPECT_EQ(regex->configurationSequence3GOnly(),
              qv::Value(qv::Array{"AT^SYSCFG=14,2,3FFFFFFF,2,4"}));
    EXPECT_EQ(database->entryForQuorvelID(1001)->portIdentificationPatternsAndCapabilities().size(),
              3u);

    // The old ASCII form, with a dictionary as root: its values are the entries.
    auto ascii = QVDeviceDatabase::databaseFromFile(fixture("RootDictionary.plist"));
    ASSERT_EQ(ascii->entries().size(), 2u);
    EXPECT_EQ(ascii->entryForQuorvelID(8)->manufacturerID(), 4);
    EXPECT_EQ(ascii->manufacturerIDFromEntry(ascii->entryForQuorvelID(8).get()), 4);
}

TEST(QVDeviceDatabase, LookupsFindTheFirstEntryAndRaiseForAbsentIDs) {
    QVDeviceDatabase database;
    auto first = QVDeviceDatabaseEntry::entryWithQuorvelID(42);
    auto second = QVDeviceDatabaseEntry::entryWithQuorvelID(42);
    database.addEntry(first);
    database.addEntry(second);
    EXPECT_EQ(second->database(), &database);
    EXPECT_TRUE(database.hasEntryForQuorvelID(42));
    EXPECT_FALSE(database.hasEntryForQuorvelID(43));
    EXPECT_EQ(database.entryForQuorvelID(42), first);
    try {
        database.entryForQuorvelID(0xFFFFFFFEu);
        FAIL() << "no exception";
    } catch (const qv::Exception& e) {
        EXPECT_EQ(e.name(), qv::kNSInternalInconsistencyException);
        EXPECT_EQ(e.reason(), "Database has no entry with Quorvel ID <-2>");
    }
    EXPECT_EQ(database.manufacturerIDFromName("Sierra"), 14);
    EXPECT_EQ(database.manufacturerIDFromName("Sierra Wireless"), -1);
    EXPECT_EQ(database.manufacturerIDFromName(qv::Value()), -1);
    EXPECT_EQ(database.manufacturerIDFromName(qv::Value(3)), -1);
    EXPECT_EQ(QVDeviceDatabase::manufacturerNamesToIDs().size(), 15u);
}

TEST(QVDeviceDatabase, EntriesOutliveTheirDatabaseWithoutClimbing) {
    std::shared_ptr<QVDeviceDatabaseEntry> child;
    {
        auto database = QVDeviceDatabase::databaseFromFile(fixture("Family.plist"));
        child = database->entryForQuorvelID(1001);
        EXPECT_EQ(child->manufacturerName(), qv::Value("Huawei"));
    }
    EXPECT_EQ(child->database(), nullptr);
    EXPECT_TRUE(child->manufacturerName().isNil());
    EXPECT_EQ(child->ancestor(), nullptr);
    EXPECT_EQ(child->portIdentificationPatternAtIndex(2), qv::Value("2"));
}

TEST(QVDeviceDatabase, BadFilesGiveAnEmptyDatabaseOrTheDocumentedException) {
    auto reasonOf = [](const std::optional<std::string>& text, std::string* name) {
        try {
            QVDeviceDatabase::databaseFromPropertyListString(text);
        } catch (const qv::Exception& e) {
            *name = e.name();
            return e.reason();
        }
        return std::string();
    };
    // No text, a missing file, binary and non-UTF-8 files: nothing to read, an empty database.
    EXPECT_TRUE(QVDeviceDatabase::databaseFromPropertyListString(std::nullopt)->entries().empty());
    for (const char* name : {"Missing.plist", "Binary.plist", "NotUTF8.plist"}) {
        EXPECT_TRUE(QVDeviceDatabase::databaseFromFile(fixture(name))->entries().empty()) << name;
    }
    std::string name;
    EXPECT_NE(reasonOf(QVDeviceDatabase::readDatabaseText(fixture("Truncated.plist")), &name), "");
    EXPECT_EQ(name, QVDeviceDatabase::kParseErrorException);
    std::string deep(100000, '(');
    EXPECT_NE(reasonOf(deep, &name), "");
    EXPECT_EQ(name, QVDeviceDatabase::kParseErrorException);
    EXPECT_NE(reasonOf(std::string("\"just a string\""), &name), "");
    EXPECT_EQ(name, qv::kNSInternalInconsistencyException);
    // One entry without an ID refuses the whole file.
    EXPECT_EQ(reasonOf(std::string("({ \"DeviceDatabase.QuorvelID\" = 1; }, { a = b; })"), &name),
              "QuorvelID not found in dictionary: {\n    a = b;\n}");
    EXPECT_EQ(reasonOf(std::string("(x)"), &name), "QuorvelID not found in dictionary: x");
}

TEST(QVDeviceDatabase, LoadsTheResourceFromTheBundle) {
    std::filesystem::path directory =
        std::filesystem::path(testing::TempDir()) / "QVDeviceDatabaseBundle";
    std::filesystem::create_directories(directory);
    qv::Bundle::setResourcesDirectory(directory.string());
    EXPECT_TRUE(QVDeviceDatabase::databaseFromBundle()->entries().empty());
    std::filesystem::copy_file(fixture("Family.plist"), directory / "DeviceDatabase.plist",
                               std::filesystem::copy_options::overwrite_existing);
    EXPECT_EQ(QVDeviceDatabase::databaseFromBundle()->entries().size(), 3u);
    qv::Bundle::setResourcesDirectory(std::nullopt);
    std::filesystem::remove_all(directory);
}

}  // namespace
