// A rule key whose value is nil, "" or an empty collection counts as absent, like every stored
// value of the framework.
#include <gtest/gtest.h>

#include "Rules/QVDeviceFilter.h"

namespace {

QVDeviceFilterSubject stick(std::int32_t quorvelID, std::int32_t vendorID) {
    return {quorvelID, vendorID, 0x1406, "Stick", nullptr};
}

std::int32_t verdict(qv::Dictionary rule, const QVDeviceFilterSubject& device) {
    return QVDeviceFilter(qv::Array{qv::Value(std::move(rule))}).isAllowedDevice(device);
}

}  // namespace

TEST(RuleKeyPresence, EmptyValuesCountAsMissingKeys) {
    const auto e1750 = stick(320, 0x12D1);
    // An empty ID names every device; an empty vendor or product does not narrow it.
    EXPECT_EQ(verdict({{"QuorvelID", ""}}, e1750), QVDeviceFilter::kAllowed);
    EXPECT_EQ(verdict({{"QuorvelID", qv::Array{}}}, e1750), QVDeviceFilter::kAllowed);
    EXPECT_EQ(verdict({{"QuorvelID", 320}, {"VendorID", ""}}, e1750), QVDeviceFilter::kAllowed);
    EXPECT_EQ(verdict({{"QuorvelID", 320}, {"ProductID", qv::Dictionary{}}}, e1750),
              QVDeviceFilter::kAllowed);
    // An empty "Allowed" does not forbid; "0" and 0 do.
    EXPECT_EQ(verdict({{"QuorvelID", 320}, {"Allowed", ""}}, e1750), QVDeviceFilter::kAllowed);
    EXPECT_EQ(verdict({{"QuorvelID", 320}, {"Allowed", "0"}}, e1750), QVDeviceFilter::kNotAllowed);
    EXPECT_EQ(verdict({{"QuorvelID", 320}, {"Allowed", 0}}, e1750), QVDeviceFilter::kNotAllowed);
    // A present ID still names only its model.
    EXPECT_EQ(verdict({{"QuorvelID", 321}}, e1750), QVDeviceFilter::kNotNamed);

    // Empty detail keys ask for no details and check nothing.
    QVDeviceFilter withEmptyDetails(qv::Array{qv::Value(
        qv::Dictionary{{"QuorvelID", 320}, {"GTCode", ""}, {"ProductMarketingName", ""}})});
    EXPECT_FALSE(withEmptyDetails.hasRuleWithDeviceDetails(e1750));
    EXPECT_EQ(withEmptyDetails.isAllowedDevice(
                  e1750, qv::Value(qv::Dictionary{{"GTCode", "X"}, {"ProductMarketingName", "Y"}})),
              QVDeviceFilter::kAllowed);
    QVDeviceFilter withDetails(
        qv::Array{qv::Value(qv::Dictionary{{"QuorvelID", 320}, {"GTCode", "GT1"}})});
    EXPECT_TRUE(withDetails.hasRuleWithDeviceDetails(e1750));
    EXPECT_EQ(withDetails.isAllowedDevice(e1750, qv::Value(qv::Dictionary{{"GTCode", "X"}})),
              QVDeviceFilter::kNotAllowed);
}
