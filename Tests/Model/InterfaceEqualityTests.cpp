// Equality of interfaces read back without their path or name: a missing path or name equals
// nothing, not even another missing one (nor the same interface compared with itself).
#include <gtest/gtest.h>

#include "Model/QVEthernetInterface.h"
#include "Model/QVSerialInterface.h"

TEST(InterfaceEquality, AMissingPathOrNameEqualsNothing) {
    const QVCapabilitySet caps{"SMS"};
    auto withPath = QVSerialInterface::portWithCapabilities(caps, "/dev/cu.ttyUSB0");
    auto samePath = QVSerialInterface::portWithCapabilities(caps, "/dev/cu.ttyUSB0");
    EXPECT_TRUE(withPath->isEqual(*samePath));
    EXPECT_FALSE(withPath->isEqual(*QVSerialInterface::portWithCapabilities(caps, "/dev/cu.x")));

    qv::Value serialForm = withPath->toDictionary();
    serialForm.asDictionary()->erase("_path");
    auto noPath = QVSerialInterface::loadDictionary(serialForm);
    auto otherNoPath = QVSerialInterface::loadDictionary(serialForm);
    ASSERT_TRUE(noPath && otherNoPath);
    ASSERT_FALSE(noPath->path());
    EXPECT_FALSE(noPath->isEqual(*otherNoPath));
    EXPECT_FALSE(noPath->isEqual(*noPath));
    EXPECT_FALSE(noPath->isEqual(*withPath));
    EXPECT_FALSE(withPath->isEqual(*noPath));

    auto named = QVEthernetInterface::ethernetInterfaceWithCapabilities(caps, "wwan0");
    EXPECT_TRUE(
        named->isEqual(*QVEthernetInterface::ethernetInterfaceWithCapabilities(caps, "wwan0")));
    auto unnamed = QVEthernetInterface::ethernetInterfaceWithCapabilities(caps, std::nullopt);
    auto otherUnnamed = QVEthernetInterface::ethernetInterfaceWithCapabilities(caps, std::nullopt);
    EXPECT_FALSE(unnamed->isEqual(*otherUnnamed));
    EXPECT_FALSE(unnamed->isEqual(*named));
    EXPECT_FALSE(named->isEqual(*unnamed));
    // An empty name is a name.
    auto empty = QVEthernetInterface::ethernetInterfaceWithCapabilities(caps, "");
    EXPECT_TRUE(empty->isEqual(*QVEthernetInterface::ethernetInterfaceWithCapabilities(caps, "")));
}
