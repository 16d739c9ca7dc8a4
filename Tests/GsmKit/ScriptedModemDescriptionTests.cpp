#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Foundation/JsonValue.h"
#include "QVGsmKit/GsmBackend.h"
#include "QVGsmKit/GsmResultCodes.h"
#include "QVGsmKit/ScriptedModemDescription.h"
#include "QVGsmKit/SerialPort.h"

namespace {

qv::Value fromJson(const std::string& text) {
    std::string error;
    auto value = qv::valueFromJson(qv::Json::parse(text), "test", &error);
    EXPECT_TRUE(value.has_value()) << error;
    // Not value_or(qv::Value()): GCC 12 at -O1 takes the moved-from nil for uninitialized.
    if (!value) {
        return qv::Value();
    }
    return std::move(*value);
}

TEST(ScriptedModemDescription, ReadsEveryFieldAndNamesPortsByPath) {
    std::string error;
    auto description = qv::ScriptedModemDescription::parse(fromJson(R"({
        "ttyUSB0": {"identify": {"deviceId": 241}, "latency": 0.25,
                    "modelInfo": {"pmn": "E220", "model": "E220"},
                    "groundInit": 7, "deviceInfo": {"IMEI": "35"},
                    "networkInfo": [{"code": 7, "complete": false, "info": {"RSSI": 20}},
                                    {"code": 19}]},
        "/dev/cu.ttyUSB1": {"identify": {"error": 12}, "modelInfo": {"error": 5},
                            "deviceInfo": 12}
    })"),
                                                           &error);
    ASSERT_TRUE(description.has_value()) << error;
    EXPECT_EQ(description->portPaths(),
              (std::vector<std::string>{"/dev/cu.ttyUSB0", "/dev/cu.ttyUSB1"}));
    EXPECT_EQ(description->port("ttyUSB0"), nullptr);  // lookups take paths

    const qv::ScriptedModemPort* stick = description->port("/dev/cu.ttyUSB0");
    ASSERT_NE(stick, nullptr);
    EXPECT_EQ(stick->identify->deviceId, 241);
    EXPECT_EQ(stick->identify->error, 0);
    EXPECT_EQ(stick->modelInfo->pmn, qv::Value("E220"));
    EXPECT_TRUE(stick->modelInfo->manSpecificNumber.isNil());
    EXPECT_EQ(stick->groundInit, 7);
    EXPECT_EQ(stick->deviceInfo->code, kGsmResultSuccess);
    EXPECT_EQ(stick->deviceInfo->data["IMEI"], qv::Value("35"));
    ASSERT_EQ(stick->networkInfo.size(), 2u);
    EXPECT_EQ(stick->networkInfo[0].complete, 0);
    EXPECT_EQ(stick->networkInfo[0].data["RSSI"], qv::Value(20));
    EXPECT_EQ(stick->networkInfo[1].complete, 1);  // complete unless said otherwise
    EXPECT_TRUE(stick->networkInfo[1].data.isNil());
    EXPECT_DOUBLE_EQ(stick->latency, 0.25);

    const qv::ScriptedModemPort* silent = description->port("/dev/cu.ttyUSB1");
    EXPECT_EQ(silent->identify->error, 12);
    EXPECT_EQ(silent->modelInfo->error, 5);
    EXPECT_EQ(silent->deviceInfo->code, 12);
    EXPECT_TRUE(silent->deviceInfo->data.isNil());
    EXPECT_FALSE(silent->groundInit.has_value());

    EXPECT_TRUE(qv::ScriptedModemDescription::parse(qv::Value(), &error).has_value());
}

TEST(ScriptedModemDescription, RefusesBadDescriptionsNamingPortAndField) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {R"([1, 2])", "dictionary of ports"},
        {R"({"ttyUSB0": 7})", "port \"/dev/cu.ttyUSB0\": must be a dictionary"},
        {R"({"ttyUSB0": {}, "/dev/cu.ttyUSB0": {}})", "\"/dev/cu.ttyUSB0\": is described twice"},
        {R"({"ttyUSB0": {"identfy": {"deviceId": 1}}})", "\"identfy\" is not a known field"},
        {R"({"ttyUSB0": {"identify": {}}})", "\"identify\" needs exactly one"},
        {R"({"ttyUSB0": {"identify": {"deviceId": 1, "error": 3}}})", "\"identify\" needs"},
        {R"({"ttyUSB0": {"identify": {"deviceId": "241"}}})", "\"identify.deviceId\" must be"},
        {R"({"ttyUSB0": {"identify": {"deviceId": 4294967296}}})", "\"identify.deviceId\""},
        {R"({"ttyUSB0": {"identify": {"error": 0}}})", "\"identify.error\" must not be 0"},
        {R"({"ttyUSB0": {"modelInfo": {"pmn": 5}}})", "\"modelInfo.pmn\" must be a string"},
        {R"({"ttyUSB0": {"modelInfo": {"pmn": "x", "error": 3}}})", "either \"error\""},
        {R"({"ttyUSB0": {"modelInfo": {"gt": "x"}}})", "\"modelInfo.gt\" is not a known"},
        {R"({"ttyUSB0": {"groundInit": 7.5}})", "\"groundInit\" must be a 32-bit integer"},
        {R"({"ttyUSB0": {"deviceInfo": "7"}})", "\"deviceInfo\" must be a dictionary"},
        {R"({"ttyUSB0": {"networkInfo": []}})", "\"networkInfo\" must be a list"},
        {R"({"ttyUSB0": {"networkInfo": [{"code": 7}, {"complete": 1}]}})",
         "\"networkInfo[1].code\" is missing"},
        {R"({"ttyUSB0": {"networkInfo": [{"code": 7, "info": [1]}]}})",
         "\"networkInfo[0].info\" must be a dictionary"},
        {R"({"ttyUSB0": {"networkInfo": [{"code": 7, "extra": 1}]}})",
         "\"networkInfo[0].extra\" is not a known field"},
        {R"({"ttyUSB0": {"latency": -1}})", "\"latency\" must be a number of seconds"},
        {R"({"ttyUSB0": {"latency": "1"}})", "\"latency\""},
        {R"({"ttyUSB0": {"latency": 1e9}})", "\"latency\""},
        {R"({"": {}})", "port \"\" is empty"},
        // Keys whose kernel name is empty or odd would be asked under another path than the one
        // they were described under.
        {R"({"/dev/cu./": {}})", "port \"/dev/cu./\" does not end in a kernel port name"},
        {R"({"/dev/cu.": {}})", "does not end in a kernel port name"},
        {R"({"/dev/cu..": {}})", "does not end in a kernel port name"},
        {R"({"ttyUSB0/": {}})", "neither a kernel port name"},
        {R"({"..": {}})", "neither a kernel port name"},
        {R"({"tty USB0": {}})", "neither a kernel port name"},
        {R"({"/dev/pts/4/": {}})", "not a plain absolute path"},
        {R"({"/dev/../etc/x": {}})", "not a plain absolute path"},
        {R"({"/dev//pts": {}})", "not a plain absolute path"},
        {R"({"/dev/pts\u001b[2J": {}})", "port \"/dev/pts\\u001b[2J\" holds a control"},
    };
    for (const auto& [json, expected] : cases) {
        std::string error;
        EXPECT_FALSE(qv::ScriptedModemDescription::parse(fromJson(json), &error).has_value())
            << json;
        EXPECT_NE(error.find(expected), std::string::npos) << json << " gave: " << error;
    }
}

TEST(ScriptedModemDescription, AcceptedKeysNameOnePortUnderPathAndKernelName) {
    for (const std::string key : {"ttyUSB0", "/dev/cu.ttyACM1", "/dev/pts/4", "cu.x", "a..b"}) {
        ASSERT_EQ(qv::gsmPortKeyProblem(key), "") << key;
        const std::string path = qv::gsmPortPath(key);
        if (std::optional<std::string> name = qv::gsmPortNameOfPath(path)) {
            EXPECT_EQ(qv::gsmPortPath(*name), path) << key;
        }
    }
    // The engine's fallback from a missing "/dev/cu." link stays inside /dev.
    EXPECT_EQ(qv::SerialPort::devicePath("/dev/cu../../etc/passwd"), "/dev/cu../../etc/passwd");
    EXPECT_EQ(qv::SerialPort::devicePath("/dev/cu.qv-no-such-tty"), "/dev/qv-no-such-tty");
}

}  // namespace
