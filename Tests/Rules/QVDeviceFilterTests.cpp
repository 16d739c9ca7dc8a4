#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Foundation/Logging.h"
#include "Model/QVUSBDevice.h"
#include "Rules/QVDeviceFilter.h"

namespace {

using Filter = QVDeviceFilter;

// Stands in for the device record in the exclusion trace.
class RecordStandIn : public qv::Object {
  public:
    std::string description() const override { return "<stick>"; }
};

QVDeviceFilterSubject device(std::int32_t quorvelID, std::int32_t vendorID,
                             std::int32_t productID = 0, std::string productName = "") {
    return {quorvelID, vendorID, productID, productName, nullptr};
}

class SystemLogCapture {
  public:
    SystemLogCapture() {
        qv::setSystemLogSink([this](const std::string& line) { lines.push_back(line); });
    }
    ~SystemLogCapture() { qv::setSystemLogSink(nullptr); }
    std::vector<std::string> lines;
};

TEST(QVDeviceFilterTests, FirstRuleThatNamesAndAllowsWins) {
    const qv::Dictionary forbid5059{{"QuorvelID", 5059}, {"Allowed", 0}};
    const qv::Dictionary sierra{{"VendorID", 4505}};
    const auto stick = device(5059, 0x1199);

    EXPECT_EQ(Filter(qv::Array{forbid5059, sierra}).isAllowedDevice(stick), 2);
    Filter onlyForbidding(qv::Array{forbid5059});
    EXPECT_EQ(onlyForbidding.isAllowedDevice(stick), 1);
    onlyForbidding.setAcceptNotAllowedDevices(true);
    EXPECT_EQ(onlyForbidding.isAllowedDevice(stick), 2);
    // A forbidding rule after an allowing one is never reached.
    EXPECT_EQ(Filter(qv::Array{sierra, forbid5059}).isAllowedDevice(stick), 2);
    EXPECT_EQ(Filter(qv::Array{forbid5059, sierra}).isAllowedDevice(device(197, 0x12D1)), 0);

    // No rules at all allow everything.
    for (const qv::Value& none : {qv::Value(), qv::Value(""), qv::Value(qv::Array{})}) {
        EXPECT_EQ(Filter(none).isAllowedDevice(stick), 2);
    }
    // A rule without any of the naming keys names every device.
    EXPECT_EQ(Filter(qv::Array{qv::Dictionary{{"Allowed", 0}}}).isAllowedDevice(stick), 1);
    // A root that is not a list, or members that are not rules, name nothing.
    EXPECT_EQ(Filter(qv::Dictionary{{"QuorvelID", 5059}}).isAllowedDevice(stick), 0);
    EXPECT_EQ(Filter(qv::Array{"QuorvelID", 5059}).isAllowedDevice(stick), 0);
}

TEST(QVDeviceFilterTests, RuleValuesAreReadByIntegerValue) {
    const auto stick = device(5059, 4505, 0x6812);
    // Strings of digits, as an old-style rules file gives them.
    EXPECT_EQ(Filter(qv::Array{qv::Dictionary{
                         {"QuorvelID", "5059"}, {"VendorID", "4505"}, {"ProductID", "26642"}}})
                  .isAllowedDevice(stick),
              2);
    EXPECT_EQ(Filter(qv::Array{qv::Dictionary{{"VendorID", "4505"}, {"ProductID", "26643"}}})
                  .isAllowedDevice(stick),
              0);
    // "YES" reads as 0 and forbids; booleans and numbers read as themselves.
    EXPECT_EQ(Filter(qv::Array{qv::Dictionary{{"QuorvelID", 5059}, {"Allowed", "YES"}}})
                  .isAllowedDevice(stick),
              1);
    EXPECT_EQ(Filter(qv::Array{qv::Dictionary{{"QuorvelID", 5059}, {"Allowed", true}}})
                  .isAllowedDevice(stick),
              2);
    EXPECT_EQ(Filter(qv::Array{qv::Dictionary{{"QuorvelID", 5059}, {"Allowed", false}}})
                  .isAllowedDevice(stick),
              1);
    // Text that is not a number reads as 0, which names devices without a Quorvel ID.
    EXPECT_EQ(Filter(qv::Array{qv::Dictionary{{"QuorvelID", "E172"}}}).isAllowedDevice(stick), 0);
    EXPECT_EQ(
        Filter(qv::Array{qv::Dictionary{{"QuorvelID", "E172"}}}).isAllowedDevice(device(0, 4505)),
        2);
}

TEST(QVDeviceFilterTests, DetailsMustMatchTheRulesOfTheDeviceModel) {
    const qv::Array rules{
        qv::Dictionary{{"VendorID", 4505}},
        qv::Dictionary{{"QuorvelID", 5059}, {"ExcludedProductMarketingName", "Vodafone K3565-Z"}},
        qv::Dictionary{{"QuorvelID", 6000}, {"GTCode", "GT-123"}},
        qv::Dictionary{{"QuorvelID", 6000}, {"ProductMarketingName", "Globe"}}};
    Filter filter{rules};
    const auto k3565 = device(5059, 4505);
    const auto gt = device(6000, 4505);

    EXPECT_TRUE(filter.hasRuleWithDeviceDetails(k3565));
    EXPECT_FALSE(filter.hasRuleWithDeviceDetails(device(197, 4505)));

    EXPECT_EQ(filter.isAllowedDevice(k3565, qv::Dictionary{{"ProductMarketingName", "Other"}}), 2);
    EXPECT_EQ(
        filter.isAllowedDevice(k3565, qv::Dictionary{{"ProductMarketingName", "VODAFONE k3565-z"}}),
        1);
    // A detail the device did not report compares as equal: excluded here, passes below.
    EXPECT_EQ(filter.isAllowedDevice(k3565, qv::Dictionary{{"GTCode", "x"}}), 1);
    EXPECT_EQ(filter.isAllowedDevice(k3565, qv::Value()), 2);
    EXPECT_EQ(filter.isAllowedDevice(k3565, qv::Dictionary{}), 2);

    EXPECT_EQ(filter.isAllowedDevice(
                  gt, qv::Dictionary{{"GTCode", "gt-123"}, {"ProductMarketingName", "GLOBE"}}),
              2);
    EXPECT_EQ(filter.isAllowedDevice(gt, qv::Dictionary{{"ProductMarketingName", "globe"}}), 2);
    EXPECT_EQ(filter.isAllowedDevice(gt, qv::Dictionary{{"GTCode", "GT-124"}}), 1);
    EXPECT_EQ(filter.isAllowedDevice(
                  gt, qv::Dictionary{{"GTCode", "GT-123"}, {"ProductMarketingName", "Globo"}}),
              1);

    // Verdicts 0 and 1 are not looked at again; no rules allow everything.
    Filter forbidding(qv::Array{qv::Dictionary{{"QuorvelID", 5059}, {"Allowed", 0}}});
    EXPECT_EQ(forbidding.isAllowedDevice(k3565, qv::Dictionary{{"GTCode", "x"}}), 1);
    EXPECT_EQ(forbidding.isAllowedDevice(device(1, 1), qv::Dictionary{{"GTCode", "x"}}), 0);
    EXPECT_EQ(Filter(qv::Value()).isAllowedDevice(k3565, qv::Dictionary{{"GTCode", "x"}}), 2);
}

TEST(QVDeviceFilterTests, GenericDevicesAreExcludedByWholeProductName) {
    SystemLogCapture log;
    RecordStandIn record;
    Filter filter(
        qv::Array{qv::Dictionary{{"VendorID", 0x19D2}, {"ExcludedModelNamePattern", "K38.*"}},
                  qv::Dictionary{{"VendorID", 0x12D1}, {"ExcludedModelNamePattern", ".*"}}});
    auto k3805 = device(0, 0x19D2, 0, "K3805-Z");
    k3805.record = &record;
    EXPECT_EQ(filter.isExcludedGenericDevice(k3805), 1);
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_EQ(log.lines[0], " isExcludedDevice: <stick> dueToPattern: K38.* matches 1");

    EXPECT_EQ(filter.isExcludedGenericDevice(device(0, 0x19D2, 0, "LM K3805-Z")), 2);
    EXPECT_EQ(filter.isExcludedGenericDevice(device(0, 0x19D2, 0, "k3805-z")), 2);
    EXPECT_EQ(filter.isExcludedGenericDevice(device(0, 0x1199, 0, "K3805-Z")), 2);
    EXPECT_EQ(Filter(qv::Value()).isExcludedGenericDevice(k3805), 2);

    // A pattern that does not compile, or is not text, excludes nothing and says so.
    log.lines.clear();
    Filter broken(
        qv::Array{qv::Dictionary{{"VendorID", 0x19D2}, {"ExcludedModelNamePattern", "K38("}},
                  qv::Dictionary{{"VendorID", 0x19D2}, {"ExcludedModelNamePattern", 38}}});
    EXPECT_EQ(broken.isExcludedGenericDevice(device(0, 0x19D2, 0, "K3805-Z")), 2);
    ASSERT_EQ(log.lines.size(), 3u);
    EXPECT_NE(log.lines[0].find("K38( does not compile"), std::string::npos);
    EXPECT_EQ(log.lines[1], " isExcludedDevice: (null) dueToPattern: K38( matches 0");
    EXPECT_NE(log.lines[2].find("38 is not a string"), std::string::npos);
}

TEST(QVDeviceFilterTests, AnExclusionThatRunsOutOfTimeExcludes) {
    // A product name made to outlast the matcher's time limit must not slip past the rule that
    // is there to keep it out; nor may a name that is not UTF-8.
    SystemLogCapture log;
    Filter runaway(
        qv::Array{qv::Dictionary{{"VendorID", 0x19D2}, {"ExcludedModelNamePattern", "(a|aa)+$"}}});
    EXPECT_EQ(runaway.isExcludedGenericDevice(device(0, 0x19D2, 0, std::string(60, 'a') + "b")), 1);
    ASSERT_EQ(log.lines.size(), 2u);
    EXPECT_NE(log.lines[0].find("could not be matched"), std::string::npos);
    EXPECT_NE(log.lines[0].find("the device is excluded"), std::string::npos);
    EXPECT_EQ(log.lines[1], " isExcludedDevice: (null) dueToPattern: (a|aa)+$ matches 1");

    EXPECT_EQ(runaway.isExcludedGenericDevice(device(0, 0x19D2, 0, "\xff\xfe")), 1);
    // Names the pattern decides stay decided.
    EXPECT_EQ(runaway.isExcludedGenericDevice(device(0, 0x19D2, 0, "aaaa")), 1);
    EXPECT_EQ(runaway.isExcludedGenericDevice(device(0, 0x19D2, 0, "K3805-Z")), 2);
}

TEST(QVDeviceFilterTests, DriverRequestsAndApplicationsToLaunch) {
    Filter filter(qv::Array{qv::Dictionary{{"VendorID", 0x12D1}, {"AllowesDriverRequest", "no"}},
                            qv::Dictionary{{"VendorID", 0x12D1}, {"AllowesDriverRequest", "yEs"}},
                            qv::Dictionary{{"VendorID", 0x19D2}, {"AllowesDriverRequest", 1}},
                            qv::Dictionary{{"AllowesDriverRequest", "YES"}}});
    EXPECT_TRUE(filter.allowesDriverRequest(0x12D1));
    EXPECT_FALSE(filter.allowesDriverRequest(0x19D2));
    EXPECT_TRUE(filter.allowesDriverRequest(0));  // no "VendorID" reads as vendor 0
    EXPECT_FALSE(Filter(qv::Value()).allowesDriverRequest(0));

    const Filter::FilterList filters = {
        Filter::filterWithRules(qv::Array{qv::Dictionary{{"QuorvelID", 5059}}}, "com.a"),
        Filter::filterWithRules(qv::Array{qv::Dictionary{{"QuorvelID", 197}}}, "com.b"),
        Filter::filterWithRules(qv::Value(), "com.c"),
        Filter::filterWithRules(qv::Value(), std::nullopt), nullptr};
    EXPECT_EQ(Filter::applicationsToLaunchForDevice(device(5059, 0), filters),
              (std::vector<std::string>{"com.a", "com.c"}));
    EXPECT_EQ(Filter::applicationsToLaunchForDevice(device(197, 0), filters),
              (std::vector<std::string>{"com.b", "com.c"}));
}

TEST(QVDeviceFilterTests, DeviceRecordsAreReadThroughTheirAccessors) {
    SystemLogCapture log;
    auto stick = QVUSBDevice::device();
    stick->setQuorvelID(5059);
    stick->setVendorID(0x19D2);
    stick->setProductID(0x0031);
    stick->setProductName(std::string("K3805-Z"));
    Filter filter(
        qv::Array{qv::Dictionary{{"QuorvelID", 5059}, {"VendorID", 0x19D2}, {"ProductID", 0x0031}},
                  qv::Dictionary{{"VendorID", 0x19D2}, {"ExcludedModelNamePattern", "K38.*"}},
                  qv::Dictionary{{"QuorvelID", 5059}, {"GTCode", "GT-1"}}});
    EXPECT_EQ(filter.isAllowedDevice(*stick), 2);
    EXPECT_EQ(filter.isAllowedDevice(*stick, qv::Dictionary{{"GTCode", "gt-2"}}), 1);
    EXPECT_TRUE(filter.hasRuleWithDeviceDetails(*stick));
    EXPECT_EQ(filter.isExcludedGenericDevice(*stick), 1);
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_EQ(log.lines[0],
              " isExcludedDevice: " + stick->description() + " dueToPattern: K38.* matches 1");
    EXPECT_EQ(Filter::applicationsToLaunchForDevice(
                  *stick, {Filter::filterWithRules(filter.allowedDeviceRules(), "com.a")}),
              std::vector<std::string>{"com.a"});

    // A record that is not a USB one has no bus IDs to name it by.
    QVDevice plain;
    plain.setQuorvelID(5059);
    EXPECT_EQ(Filter(qv::Array{qv::Dictionary{{"QuorvelID", 5059}, {"VendorID", 0x19D2}}})
                  .isAllowedDevice(plain),
              0);
}

}  // namespace
