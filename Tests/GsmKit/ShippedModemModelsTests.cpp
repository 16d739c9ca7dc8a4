// The shipped model table: every row names where its answers come from and leads to a Quorvel ID
// that the built-in device table carries, so a model answer never yields an ID nothing else knows;
// and the answers quoted in the rows' sources find their rows through the lookup's matching.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "Foundation/BoundedFileReader.h"
#include "Foundation/JsonValue.h"
#include "QVDeviceKnowledge/QVDeviceTables.h"
#include "QVGsmKit/ModemModelTable.h"

namespace {

const std::string kTablePath =
    std::string(QV_SOURCE_DIR) + "/CoreLayer/QVDeviceObserver/Resources/ModemModels.json";

TEST(ShippedModemModels, EveryRowHasASourceAndABuiltInQuorvelID) {
    std::string error;
    auto text = qv::readFileUpTo(kTablePath, 1024 * 1024, qv::FileKinds::RegularOnly, &error);
    ASSERT_TRUE(text) << error;
    auto json = qv::parseJsonText(*text, &error);
    ASSERT_TRUE(json) << error;

    std::set<std::int32_t> builtIn;
    for (std::size_t i = 0; i < kDevicesInfoRowCount; ++i) {
        builtIn.insert(devicesInfo[i].quorvelID);
    }
    std::set<std::string> seen;
    for (const auto& row : (*json)["models"]) {
        const std::string name = row["maker"].get<std::string>() + " " + row.value("model", "");
        SCOPED_TRACE(name);
        ASSERT_TRUE(row.contains("source") && row["source"].is_string());
        EXPECT_GE(row["source"].get<std::string>().size(), 10u);
        EXPECT_EQ(builtIn.count(row["quorvelID"].get<std::int32_t>()), 1u);
        // A second row for the same answers could never match: the first one wins.
        EXPECT_TRUE(seen.insert(name).second) << "listed twice";
    }
}

TEST(ShippedModemModels, PublishedAnswersFindTheirRows) {
    std::string error;
    auto table = qv::ModemModelTable::fromFile(kTablePath, &error);
    ASSERT_TRUE(table) << error;
    struct Answer {
        const char* maker;
        const char* model;
        std::int32_t quorvelID;  // 0: the table must not know it
    };
    const Answer answers[] = {
        {"Vodafone (ZTE)", "K3805-Z", 15412},  // the maker is found inside a branded answer
        {"Option N.V.", "GTM382", 4020},
        {"Option N.V.", "GTM378", 0},  // the iCON 7.2: no Quorvel ID of ours
        {"Nokia", "Nokia 2720a-2b", 0},
        {"Novatel Wireless Incorporated", "DELL XU870 ExpressCard", 5103},
        {"Sony Ericsson", "MD300", 2101},
        {"ZTE INCORPORATED", "MF627", 15407},
        {"huawei", "E173", 326},
        {"Vodafone (ZTE)", "K3805", 0},  // a model answer is compared whole
    };
    for (const auto& answer : answers) {
        SCOPED_TRACE(std::string(answer.maker) + " / " + answer.model);
        auto id = table->lookup(answer.maker, answer.model);
        if (answer.quorvelID == 0) {
            EXPECT_FALSE(id);
        } else {
            EXPECT_EQ(id, answer.quorvelID);
        }
    }
}

}  // namespace
