#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "Foundation/Exception.h"
#include "Knowledge/QVDeviceDatabase.h"
#include "Knowledge/QVDeviceDatabaseEntry.h"

namespace {

std::shared_ptr<QVDeviceDatabase> databaseFrom(const std::string& text) {
    return QVDeviceDatabase::databaseFromPropertyListString(text);
}

// The reason of the exception `call` raises, or "" when it raises none.
template <class Call>
std::string raisedReason(Call call) {
    try {
        call();
    } catch (const qv::Exception& e) {
        EXPECT_EQ(e.name(), qv::kNSInternalInconsistencyException);
        return e.reason();
    }
    return "";
}

const char* const kFamily = R"((
    {
        "DeviceDatabase.QuorvelID" = 100;
        "DeviceDatabase.PortIdentificationStrategy" = ByPortNumber;
        "DeviceDatabase.Manufacturer" = Huawei;
        "DeviceDatabase.ShouldSupressDriverDisk" = YES;
        "DeviceDatabase.NetworkAccessTechnology" = GSM;
        "DeviceDatabase.Pattern.Port-0" = 0;
        "DeviceDatabase.Capabilities.Port-0" = "ALL_CORE_PROCEDURE_CAPABILITIES, SMS, Optional";
        "DeviceDatabase.Pattern.Port-1" = 1;
        "DeviceDatabase.Capabilities.Port-1" = "GroundInit,SignalStrength";
        "DeviceDatabase.Pattern.Port-3" = 3;
        "DeviceDatabase.PatternAlternative-0.Port-1" = 2;
        "DeviceDatabase.PatternAlternative-1.Port-1" = 4;
        "DeviceDatabase.PatternAlternative-3.Port-1" = 5;
        "DeviceDatabase.Capabilities.Ethernet-0" = "ALL_CAPABILITIES";
    },
    {
        "DeviceDatabase.QuorvelID" = "101";
        "DeviceDatabase.AncestorQuorvelID" = "100";
        "DeviceDatabase.ShouldSupressDriverDisk" = "";
        "DeviceDatabase.Manufacturer" = "Sierra Wireless";
        "DeviceDatabase.NetworkAccessTechnology" = gsm;
    },
    {
        "DeviceDatabase.QuorvelID" = 102;
        "DeviceDatabase.AncestorQuorvelID" = 101;
    },
    { "DeviceDatabase.QuorvelID" = 103; "DeviceDatabase.AncestorQuorvelID" = 999;
      "DeviceDatabase.Manufacturer" = Option; }
))";

TEST(QVDeviceDatabaseEntry, InheritanceClimbsAndOwnValuesWin) {
    auto database = databaseFrom(kFamily);
    const auto& parent = database->entryForQuorvelID(100);
    const auto& child = database->entryForQuorvelID(101);
    const auto& grandchild = database->entryForQuorvelID(102);

    EXPECT_EQ(grandchild->ancestor(), child);
    EXPECT_EQ(child->ancestor(), parent);
    EXPECT_FALSE(parent->hasAncestor());
    EXPECT_EQ(parent->ancestor(), nullptr);
    // Two levels up, and the ID key is the grandchild's own.
    EXPECT_EQ(grandchild->portIdentificationStrategy(), qv::Value("ByPortNumber"));
    EXPECT_EQ(grandchild->objectForKey("DeviceDatabase.QuorvelID"), qv::Value("102"));
    EXPECT_TRUE(grandchild->hasKey("DeviceDatabase.Pattern.Port-3"));
    EXPECT_FALSE(grandchild->hasKey("DeviceDatabase.Sequence.3GOnly"));
    EXPECT_TRUE(grandchild->configurationSequence3GOnly().isNil());
    // The child's empty string masks the parent's "YES".
    EXPECT_TRUE(parent->shouldSupressDisk());
    EXPECT_FALSE(child->shouldSupressDisk());
    EXPECT_FALSE(grandchild->shouldSupressDisk());
    EXPECT_TRUE(grandchild->hasKey("DeviceDatabase.ShouldSupressDriverDisk"));

    qv::Dictionary resolved = grandchild->resolvedDictionary();
    EXPECT_EQ(*resolved.find("DeviceDatabase.AncestorQuorvelID"), qv::Value("101"));
    EXPECT_EQ(*resolved.find("DeviceDatabase.Manufacturer"), qv::Value("Sierra Wireless"));
    EXPECT_EQ(resolved.size(), 15u);
    EXPECT_EQ(grandchild->ancestors(), (std::vector{child, parent}));
}

TEST(QVDeviceDatabaseEntry, MissingAncestorRaisesOnlyWhenTheChildLacksTheKey) {
    auto database = databaseFrom(kFamily);
    const auto& orphan = database->entryForQuorvelID(103);
    EXPECT_EQ(orphan->manufacturerName(), qv::Value("Option"));
    EXPECT_EQ(orphan->manufacturerID(), 1);
    EXPECT_EQ(raisedReason([&] { orphan->portIdentificationStrategy(); }),
              "Database has no entry with Quorvel ID <999>");
    EXPECT_EQ(raisedReason([&] { orphan->ancestor(); }),
              "Database has no entry with Quorvel ID <999>");
    bool complete = true;
    EXPECT_TRUE(orphan->ancestors(&complete).empty());
    EXPECT_FALSE(complete);
}

TEST(QVDeviceDatabaseEntry, CapabilityListsAndShortcuts) {
    auto database = databaseFrom(kFamily);
    const auto& parent = database->entryForQuorvelID(100);

    QVCapabilitySet port0 = parent->portIdentificationCapabilitiesAtIndex(0);
    EXPECT_EQ(port0.size(), 18u);
    EXPECT_TRUE(port0.count("Unsolicited") && port0.count("SMS") && port0.count("Optional"));
    EXPECT_FALSE(port0.count("DataTransport"));
    EXPECT_FALSE(parent->isPortRequired(0));
    EXPECT_TRUE(parent->isPortRequired(1));
    // A comma without the blank does not separate.
    EXPECT_EQ(parent->portIdentificationCapabilitiesAtIndex(1),
              QVCapabilitySet{"GroundInit,SignalStrength"});
    EXPECT_TRUE(parent->portIdentificationCapabilitiesAtIndex(7).empty());
    EXPECT_EQ(parent->ethernetInterfaceCapabilitiesAtIndex(0).size(), 18u);
    EXPECT_TRUE(parent->ethernetInterfaceCapabilitiesAtIndex(0).count("DataTransport"));

    EXPECT_EQ(QVDeviceDatabaseEntry::capabilitiesFromString("SMS, SMS, GPSData"),
              (QVCapabilitySet{"GPSData", "SMS"}));
    EXPECT_TRUE(QVDeviceDatabaseEntry::capabilitiesFromString("").empty());
    EXPECT_TRUE(QVDeviceDatabaseEntry::capabilitiesFromString(qv::Value(7)).empty());
    EXPECT_TRUE(QVDeviceDatabaseEntry::isCapabilityShortcut("ALL_CAPABILITIES"));
    EXPECT_FALSE(QVDeviceDatabaseEntry::isCapabilityShortcut("all_capabilities"));
    const auto* core =
        QVDeviceDatabaseEntry::expandCapabilitiesShortcut("ALL_CORE_PROCEDURE_CAPABILITIES");
    ASSERT_NE(core, nullptr);
    EXPECT_EQ(core->size(), 16u);
    EXPECT_EQ(core->front(), "GroundInit");
    EXPECT_EQ(core->back(), "Unsolicited");
    EXPECT_EQ(QVDeviceDatabaseEntry::expandCapabilitiesShortcut("ALL_CAPABILITIES")->back(), "SMS");
}

TEST(QVDeviceDatabaseEntry, PortLayoutStopsAtTheFirstGap) {
    auto database = databaseFrom(kFamily);
    const auto& child = database->entryForQuorvelID(101);

    std::vector<QVDatabasePortDescription> ports =
        child->portIdentificationPatternsAndCapabilities();
    ASSERT_EQ(ports.size(), 2u);  // port 3 is behind the gap at 2
    EXPECT_EQ(ports[0].pattern, qv::Value("0"));
    EXPECT_FALSE(ports[0].required);
    EXPECT_TRUE(ports[0].alternativePatterns.empty());
    // Alternatives 0 and 1; 3 is behind the gap at 2.
    EXPECT_EQ(ports[1].alternativePatterns, (std::vector<qv::Value>{"2", "4"}));
    EXPECT_EQ(child->portIdentificationAltPatternForPortAtIndex(1, 3), qv::Value("5"));
    EXPECT_TRUE(child->portIdentificationAltPatternForPortAtIndex(3, 1).isNil());
    EXPECT_TRUE(child->hasPortIdentificationPatternAndCapabilitiesAtIndex(3));
    EXPECT_FALSE(child->hasPortIdentificationPatternAndCapabilitiesAtIndex(2));
    EXPECT_FALSE(child->isMissingPortMappings());
    EXPECT_TRUE(child->deviceShouldHaveSerialPorts());

    qv::Value form = ports[1].toDictionary();
    EXPECT_EQ(form["DeviceDatabase.Pattern"], qv::Value("1"));
    EXPECT_EQ(form["DeviceDatabase.PatternAlternative_1"], qv::Value("4"));
    EXPECT_EQ(form["DeviceDatabase.Capabilities"],
              qv::Value(qv::Array{"GroundInit,SignalStrength"}));

    // Empty patterns and empty lists do not describe a port.
    auto bare = QVDeviceDatabaseEntry::entryWithQuorvelID(5);
    EXPECT_TRUE(bare->isMissingPortMappings());
    bare->setObject("", "DeviceDatabase.Pattern.Port-0");
    EXPECT_TRUE(bare->isMissingPortMappings());
    bare->setObject(qv::Array{}, "DeviceDatabase.Pattern.Port-0");
    EXPECT_TRUE(bare->isMissingPortMappings());
    bare->setObject(qv::Array{"ttyUSB0"}, "DeviceDatabase.Pattern.Port-0");
    EXPECT_FALSE(bare->isMissingPortMappings());
}

TEST(QVDeviceDatabaseEntry, FlagsAndEnumerationsReadExactly) {
    auto entry = QVDeviceDatabaseEntry::entryWithQuorvelID(7);
    auto set = [&](const char* key, qv::Value value) { entry->setObject(std::move(value), key); };

    EXPECT_FALSE(entry->shouldSupressDisk());
    set("DeviceDatabase.ShouldSupressDriverDisk", true);
    EXPECT_FALSE(entry->shouldSupressDisk());
    set("DeviceDatabase.ShouldSupressDriverDisk", "yes");
    EXPECT_FALSE(entry->shouldSupressDisk());
    set("DeviceDatabase.ShouldSupressDriverDisk", "YES");
    EXPECT_TRUE(entry->shouldSupressDisk());

    EXPECT_FALSE(entry->supressNetworkQueryWhileConnecting());
    set("DeviceDatabase.SupressNetworkQueryWhileConnecting", "");
    EXPECT_FALSE(entry->supressNetworkQueryWhileConnecting());
    set("DeviceDatabase.SupressNetworkQueryWhileConnecting", "NO");
    EXPECT_TRUE(entry->supressNetworkQueryWhileConnecting());
    set("DeviceDatabase.SupressNetworkQueryWhileConnecting", 0);
    EXPECT_TRUE(entry->supressNetworkQueryWhileConnecting());
    set("DeviceDatabase.SupressNetworkQueryWhileConnecting", qv::Array{});
    EXPECT_FALSE(entry->supressNetworkQueryWhileConnecting());

    EXPECT_EQ(entry->networkAccessTechnology(), -1);
    EXPECT_EQ(entry->networkIPv6Support(), -1);
    EXPECT_EQ(entry->deviceAPIType(), 0);
    set("DeviceDatabase.NetworkAccessTechnology", "CDMA");
    set("DeviceDatabase.NetworkIPv6Support", "IPv6");
    set("DeviceDatabase.DeviceControllingAPIType", "HalcyraWebApi");
    EXPECT_EQ(entry->networkAccessTechnology(), 1);
    EXPECT_EQ(entry->networkIPv6Support(), 0);
    EXPECT_EQ(entry->deviceAPIType(), 2);
    set("DeviceDatabase.NetworkAccessTechnology", "gsm");
    set("DeviceDatabase.NetworkIPv6Support", "IPv4v6");
    set("DeviceDatabase.DeviceControllingAPIType", qv::Value(1));
    EXPECT_EQ(entry->networkAccessTechnology(), -1);
    EXPECT_EQ(entry->networkIPv6Support(), 1);
    EXPECT_EQ(entry->deviceAPIType(), 0);

    auto database = databaseFrom(kFamily);
    EXPECT_EQ(database->entryForQuorvelID(100)->networkAccessTechnology(), 0);
    EXPECT_EQ(database->entryForQuorvelID(101)->networkAccessTechnology(), -1);
    EXPECT_EQ(database->entryForQuorvelID(100)->manufacturerID(), 3);
    EXPECT_EQ(database->entryForQuorvelID(101)->manufacturerID(), -1);
    // Without a database the manufacturer number is that of no answer at all.
    entry->setObject("Huawei", "DeviceDatabase.Manufacturer");
    EXPECT_EQ(entry->manufacturerID(), 0);
}

TEST(QVDeviceDatabaseEntry, AncestorCyclesRaiseAsCyclesNotAsMissingEntries) {
    auto database = databaseFrom(R"((
        { "DeviceDatabase.QuorvelID" = 1; "DeviceDatabase.AncestorQuorvelID" = 2; A = a; },
        { "DeviceDatabase.QuorvelID" = 2; "DeviceDatabase.AncestorQuorvelID" = 3; },
        { "DeviceDatabase.QuorvelID" = 3; "DeviceDatabase.AncestorQuorvelID" = 2; B = b; },
        { "DeviceDatabase.QuorvelID" = 4; "DeviceDatabase.AncestorQuorvelID" = 4; }
    ))");
    const auto& first = database->entryForQuorvelID(1);
    EXPECT_EQ(first->objectForKey("B"), qv::Value("b"));
    // Every entry on the way exists: the climb gives up at 3, whose ancestor 2 is in the cycle.
    const std::string cycle =
        "Database entries inherit in a cycle: Quorvel ID <2> is its own ancestor";
    EXPECT_EQ(raisedReason([&] { first->objectForKey("C"); }), cycle);
    EXPECT_EQ(raisedReason([&] { first->hasKey("C"); }), cycle);
    EXPECT_EQ(raisedReason([&] { first->resolvedDictionary(); }), cycle);
    EXPECT_EQ(raisedReason([&] { database->entryForQuorvelID(4)->shouldSupressDisk(); }),
              "Database entries inherit in a cycle: Quorvel ID <4> is its own ancestor");
    bool complete = true;
    EXPECT_EQ(first->ancestors(&complete).size(), 4u);
    EXPECT_FALSE(complete);
}

TEST(QVDeviceDatabaseEntry, HostileValuesReadAsDocumented) {
    auto database = databaseFrom(R"((
        { "DeviceDatabase.QuorvelID" = (1); "DeviceDatabase.AncestorQuorvelID" = <00>; },
        { "DeviceDatabase.QuorvelID" = 12abc; "DeviceDatabase.AncestorQuorvelID" = {};
          "DeviceDatabase.Pattern.Port-0" = { a = b; };
          "DeviceDatabase.Capabilities.Port-0" = (SMS);
          "DeviceDatabase.Manufacturer" = (Huawei);
          "DeviceDatabase.ShouldSupressDriverDisk" = (YES);
          "DeviceDatabase.NetworkIPv6Support" = <49507636>; }
    ))");
    // A list as ID reads as 0, a numeric prefix as its number.
    ASSERT_EQ(database->entries().size(), 2u);
    EXPECT_EQ(database->entries()[0]->quorvelID(), 0u);
    const auto& hostile = database->entryForQuorvelID(12);
    // Data and dictionaries are no ancestor IDs.
    EXPECT_FALSE(database->entries()[0]->hasAncestor());
    EXPECT_FALSE(hostile->hasAncestor());
    EXPECT_FALSE(hostile->isMissingPortMappings());
    EXPECT_TRUE(hostile->portIdentificationCapabilitiesAtIndex(0).empty());
    EXPECT_TRUE(hostile->isPortRequired(0));
    EXPECT_EQ(hostile->manufacturerID(), -1);
    EXPECT_FALSE(hostile->shouldSupressDisk());
    EXPECT_EQ(hostile->networkIPv6Support(), -1);
    EXPECT_EQ(hostile->portIdentificationPatternsAndCapabilities().size(), 1u);
}

}  // namespace
