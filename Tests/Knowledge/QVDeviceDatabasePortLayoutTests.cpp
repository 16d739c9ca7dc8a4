// The port layout an entry keeps for classification, and the key order of entries read from
// dictionaries: both must answer exactly what reading the entry key by key answers.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "Foundation/Exception.h"
#include "Knowledge/QVDeviceDatabase.h"
#include "Knowledge/QVDeviceDatabaseEntry.h"

namespace {

const char* const kChain = R"((
    {
        "DeviceDatabase.QuorvelID" = 200;
        "DeviceDatabase.PortIdentificationStrategy" = ByRegex;
        "DeviceDatabase.Pattern.Port-0" = "/dev/cu\\.ttyUSB0";
        "DeviceDatabase.Capabilities.Port-0" = "ALL_CAPABILITIES";
        "DeviceDatabase.Pattern.Port-1" = "/dev/cu\\.ttyUSB1";
        "DeviceDatabase.Capabilities.Port-1" = "GPSData, Optional";
        "DeviceDatabase.PatternAlternative-0.Port-1" = "/dev/cu\\.ttyACM1";
        "DeviceDatabase.Capabilities.Ethernet-0" = "ControlWWANInterface";
    },
    {
        "DeviceDatabase.QuorvelID" = 201;
        "DeviceDatabase.AncestorQuorvelID" = 200;
        "DeviceDatabase.Pattern.Port-2" = "/dev/cu\\.ttyUSB2";
    },
    {
        "DeviceDatabase.QuorvelID" = 202;
        "DeviceDatabase.AncestorQuorvelID" = 777;
        "DeviceDatabase.Pattern.Port-0" = "/dev/cu\\.ttyUSB0";
    }
))";

// The layout as the key-by-key accessors answer it, in the dictionary form for comparison.
qv::Value layoutByKeys(const QVDeviceDatabaseEntry& entry) {
    qv::Array ports;
    for (const auto& port : entry.portIdentificationPatternsAndCapabilities()) {
        ports.push_back(port.toDictionary());
    }
    const QVCapabilitySet ethernet = entry.ethernetInterfaceCapabilitiesAtIndex(0);
    return qv::Value(qv::Dictionary{{"strategy", entry.portIdentificationStrategy()},
                                    {"ports", qv::Value(std::move(ports))},
                                    {"ethernet", qv::Array(ethernet.begin(), ethernet.end())}});
}

qv::Value layoutKept(const QVDeviceDatabaseEntry& entry) {
    auto layout = entry.portLayout();
    if (!layout) {
        return qv::Value();
    }
    qv::Array ports;
    for (const auto& port : layout->ports) {
        ports.push_back(port.toDictionary());
        EXPECT_EQ(port.required, entry.isPortRequired(port.index));
    }
    const QVCapabilitySet& ethernet = layout->ethernetCapabilities;
    return qv::Value(qv::Dictionary{{"strategy", layout->strategy},
                                    {"ports", qv::Value(std::move(ports))},
                                    {"ethernet", qv::Array(ethernet.begin(), ethernet.end())}});
}

TEST(QVDeviceDatabasePortLayout, KeptLayoutFollowsEveryChangeOfTheChain) {
    auto database = QVDeviceDatabase::databaseFromPropertyListString(std::string(kChain));
    const auto& parent = database->entryForQuorvelID(200);
    const auto& child = database->entryForQuorvelID(201);

    EXPECT_EQ(layoutKept(*child), layoutByKeys(*child));
    ASSERT_EQ(child->portLayout()->ports.size(), 3u);
    EXPECT_EQ(child->portLayout(), child->portLayout());  // read once, then kept

    // A change in the ancestor reaches the child's layout.
    parent->setObject("/dev/cu\\.ttyACM0", "DeviceDatabase.Pattern.Port-0");
    parent->setObject("ByFileEnding", "DeviceDatabase.PortIdentificationStrategy");
    parent->setObject("SMS", "DeviceDatabase.Capabilities.Ethernet-0");
    EXPECT_EQ(layoutKept(*child), layoutByKeys(*child));
    EXPECT_EQ(child->portLayout()->ports[0].pattern, qv::Value("/dev/cu\\.ttyACM0"));
    EXPECT_EQ(child->portLayout()->strategy, qv::Value("ByFileEnding"));

    // A gap in the parent cuts the child's ports short; the child's own key fills it again.
    parent->setObject("", "DeviceDatabase.Pattern.Port-1");
    EXPECT_EQ(child->portLayout()->ports.size(), 1u);
    child->setObject("/dev/cu\\.ttyUSB9", "DeviceDatabase.Pattern.Port-1");
    EXPECT_EQ(layoutKept(*child), layoutByKeys(*child));
    EXPECT_EQ(child->portLayout()->ports.size(), 3u);
    EXPECT_FALSE(child->portLayout()->ports[1].required);

    // Leaving the database ends the climb: only the child's own keys are left.
    child->setDatabase(nullptr);
    EXPECT_EQ(layoutKept(*child), layoutByKeys(*child));
    EXPECT_TRUE(child->portLayout()->strategy.isNil());
    EXPECT_TRUE(child->portLayout()->ports.empty());
}

TEST(QVDeviceDatabasePortLayout, BrokenChainKeepsNoLayoutUntilItIsMended) {
    auto database = QVDeviceDatabase::databaseFromPropertyListString(std::string(kChain));
    // A copy: adding an entry below may move the database's list.
    const auto orphan = database->entryForQuorvelID(202);
    EXPECT_EQ(orphan->portLayout(), nullptr);
    EXPECT_THROW(orphan->portIdentificationStrategy(), qv::Exception);

    auto missing = QVDeviceDatabaseEntry::entryWithQuorvelID(777);
    missing->setObject("ByPortNumber", "DeviceDatabase.PortIdentificationStrategy");
    database->addEntry(missing);
    ASSERT_NE(orphan->portLayout(), nullptr);
    EXPECT_EQ(layoutKept(*orphan), layoutByKeys(*orphan));
    EXPECT_EQ(orphan->portLayout()->strategy, qv::Value("ByPortNumber"));

    // An entry that names itself loops: no layout, the key-by-key read raises.
    missing->setAncestorQuorvelID(777);
    EXPECT_EQ(orphan->portLayout(), nullptr);
    EXPECT_THROW(orphan->portIdentificationCapabilitiesAtIndex(0), qv::Exception);
}

// Keys of an entry read from a dictionary: the ancestor first (the dictionary's value, else -1),
// then the others in the dictionary's order; copying and taking the dictionary agree.
TEST(QVDeviceDatabasePortLayout, EntriesFromDictionariesPutTheAncestorFirst) {
    auto keysOf = [](const QVDeviceDatabaseEntry& entry) {
        std::vector<std::string> keys;
        for (const auto& [key, value] : entry.deviceData()) {
            keys.push_back(key);
        }
        return keys;
    };
    qv::Dictionary withAncestor{{"DeviceDatabase.QuorvelID", 5},
                                {"DeviceDatabase.Manufacturer", "Huawei"},
                                {"DeviceDatabase.AncestorQuorvelID", 7},
                                {"DeviceDatabase.Pattern.Port-0", "0"}};
    const qv::Value source(withAncestor);
    auto copied = QVDeviceDatabaseEntry::entryFromDictionary(source);
    auto taken = QVDeviceDatabaseEntry::entryFromDictionary(qv::Value(withAncestor));
    const std::vector<std::string> expected = {
        "DeviceDatabase.AncestorQuorvelID", "DeviceDatabase.QuorvelID",
        "DeviceDatabase.Manufacturer", "DeviceDatabase.Pattern.Port-0"};
    EXPECT_EQ(keysOf(*copied), expected);
    EXPECT_EQ(keysOf(*taken), expected);
    EXPECT_EQ(copied->deviceData(), taken->deviceData());
    EXPECT_EQ(taken->ancestorQuorvelID(), 7);
    EXPECT_EQ(taken->quorvelID(), 5u);
    EXPECT_EQ(taken->manufacturerName(), qv::Value("Huawei"));
    EXPECT_EQ(source, qv::Value(withAncestor));  // the copied source is left as it was

    auto plain = QVDeviceDatabaseEntry::entryFromDictionary(
        qv::Value(qv::Dictionary{{"DeviceDatabase.QuorvelID", "9"}, {"A", 1}, {"B", 2}}));
    EXPECT_EQ(keysOf(*plain), (std::vector<std::string>{"DeviceDatabase.AncestorQuorvelID",
                                                        "DeviceDatabase.QuorvelID", "A", "B"}));
    EXPECT_EQ(plain->ancestorQuorvelID(), -1);
    EXPECT_EQ(plain->quorvelID(), 9u);
    EXPECT_FALSE(plain->hasAncestor());

    // A large entry (past the dictionary's lookup index threshold) still finds every key.
    qv::Dictionary large{{"DeviceDatabase.QuorvelID", 11}};
    for (int i = 0; i < 40; ++i) {
        large.set("DeviceDatabase.Pattern.Port-" + std::to_string(i), std::to_string(i));
    }
    auto many = QVDeviceDatabaseEntry::entryFromDictionary(qv::Value(large));
    EXPECT_EQ(many->deviceData().size(), 42u);
    EXPECT_EQ(many->portIdentificationPatternAtIndex(39), qv::Value("39"));
    EXPECT_EQ(many->portIdentificationPatternsAndCapabilities().size(), 40u);
}

}  // namespace
