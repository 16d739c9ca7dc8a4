#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "Foundation/JsonValue.h"
#include "qvdevice/CommandLine.h"

namespace {

int runTool(std::vector<std::string> args, std::string* out) {
    std::vector<char*> argv;
    for (std::string& arg : args) {
        argv.push_back(arg.data());
    }
    std::ostringstream outStream;
    std::ostringstream errStream;
    int code = qvdevice::run(static_cast<int>(argv.size()), argv.data(), outStream, errStream);
    *out = outStream.str();
    return code;
}

TEST(TableCommand, JsonRowsCarryEveryField) {
    std::string out;
    ASSERT_EQ(runTool({"qvdevice", "table", "--json"}, &out), 0);
    qv::Json json = qv::Json::parse(out);
    const qv::Json& devices = json.at("devicesInfo");
    ASSERT_EQ(devices.size(), 238u);
    bool sawSierra = false;
    for (const qv::Json& row : devices) {
        ASSERT_EQ(row.size(), 6u);
        for (const char* key :
             {"quorvelID", "vendorID", "productID", "powerUpDelay", "description", "ioKitClass"}) {
            ASSERT_TRUE(row.contains(key)) << key;
        }
        sawSierra |= row["quorvelID"] == 5059 && row["vendorID"] == 0x1199 &&
                     row["productID"] == 0x6812 && row["powerUpDelay"] == 3 &&
                     row["ioKitClass"] == "IOUSBDevice";
    }
    EXPECT_TRUE(sawSierra);
    const qv::Json& classes = json.at("deviceClassInfo");
    ASSERT_EQ(classes.size(), 4u);
    EXPECT_EQ(classes[3]["quorvelID"], 15356);
    EXPECT_EQ(classes[3]["description"], "ZTE-device old generation");
}

TEST(TableCommand, TextListsBothTables) {
    std::string out;
    ASSERT_EQ(runTool({"qvdevice", "table"}, &out), 0);
    EXPECT_NE(out.find("devicesInfo (238 rows)"), std::string::npos);
    EXPECT_NE(out.find("deviceClassInfo (4 rows)"), std::string::npos);
    EXPECT_NE(out.find("    5090  0x1931  0x000C       0  IOPCIDevice       GT Nozomi\n"),
              std::string::npos);
    EXPECT_NE(out.find("   15355  0x12D1  Huawei-class device\n"), std::string::npos);
    EXPECT_EQ(out.find("end of list"), std::string::npos);
}

}  // namespace
