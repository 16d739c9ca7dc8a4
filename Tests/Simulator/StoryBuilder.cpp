#include "StoryBuilder.h"

#include <gtest/gtest.h>

namespace qvtest {

namespace {

qv::Json ttyEntry(const StickSpec& stick, std::size_t index) {
    const std::string& tty = stick.ttys[index];
    qv::Json client = {
        {"id", stick.id + "." + tty},
        {"class", "IOSerialBSDClient"},
        {"properties", {{"IOTTYDevice", tty}, {"IOCalloutDevice", "/dev/cu." + tty}}}};
    return {{"id", stick.id + ".if" + std::to_string(index)},
            {"class", "IOUSBInterface"},
            {"properties", {{"bInterfaceNumber", index}}},
            {"children", qv::Json::array({client})}};
}

qv::Json extras(const StickSpec& stick) {
    qv::Json children = qv::Json::array();
    if (stick.cdrom) {
        children.push_back({{"id", stick.id + ".cd"},
                            {"class", "IOCDMedia"},
                            {"properties", {{"BSD Name", *stick.cdrom}, {"Leaf", true}}}});
    }
    if (stick.network) {
        children.push_back({{"id", stick.id + ".net"},
                            {"class", "IOEthernetInterface"},
                            {"properties", {{"BSD Name", *stick.network}}}});
    }
    return children;
}

qv::Json deviceEntry(const StickSpec& stick, bool withChildren) {
    qv::Json children = qv::Json::array();
    if (withChildren) {
        for (std::size_t i = 0; i < stick.ttys.size(); ++i)
            children.push_back(ttyEntry(stick, i));
        for (auto& child : extras(stick))
            children.push_back(child);
    }
    return {{"id", stick.id},
            {"class", "IOUSBDevice"},
            {"properties",
             {{"idVendor", stick.vendorID},
              {"idProduct", stick.productID},
              {"locationID", stick.locationID},
              {"USB Product Name", stick.productName},
              {"USB Vendor Name", "Maker"}}},
            {"children", children}};
}

}  // namespace

StickSpec huaweiE1750(const std::string& id, long long location) {
    StickSpec stick;
    stick.id = id;
    stick.vendorID = 0x12D1;
    stick.productID = 0x1406;
    stick.locationID = location;
    stick.productName = "HUAWEI Mobile";
    stick.ttys = {"ttyUSB0", "ttyUSB1", "ttyUSB2"};
    return stick;
}

StickSpec huaweiE1750WithDriverCd(const std::string& id, long long location) {
    StickSpec stick = huaweiE1750(id, location);
    stick.cdrom = "sr0";
    return stick;
}

StoryBuilder::StoryBuilder() {
    scenario_ = {{"options", {{"database", testDatabasePath()}}}, {"timeline", qv::Json::array()}};
}

StoryBuilder& StoryBuilder::plug(double at, const StickSpec& stick) {
    scenario_["timeline"].push_back(
        {{"at", at}, {"add", {{"parent", nullptr}, {"entry", deviceEntry(stick, true)}}}});
    return *this;
}

StoryBuilder& StoryBuilder::plugBare(double at, const StickSpec& stick) {
    scenario_["timeline"].push_back(
        {{"at", at}, {"add", {{"parent", nullptr}, {"entry", deviceEntry(stick, false)}}}});
    return *this;
}

StoryBuilder& StoryBuilder::addPorts(double at, const StickSpec& stick) {
    for (std::size_t i = 0; i < stick.ttys.size(); ++i) {
        scenario_["timeline"].push_back(
            {{"at", at}, {"add", {{"parent", stick.id}, {"entry", ttyEntry(stick, i)}}}});
    }
    for (auto& child : extras(stick)) {
        scenario_["timeline"].push_back(
            {{"at", at}, {"add", {{"parent", stick.id}, {"entry", child}}}});
    }
    return *this;
}

StoryBuilder& StoryBuilder::removeEntry(double at, const std::string& id) {
    scenario_["timeline"].push_back({{"at", at}, {"remove", id}});
    return *this;
}

StoryBuilder& StoryBuilder::option(const std::string& key, qv::Json value) {
    scenario_["options"][key] = std::move(value);
    return *this;
}

StoryBuilder& StoryBuilder::modem(const std::string& tty, qv::Json description) {
    scenario_["modems"]["/dev/cu." + tty] = std::move(description);
    return *this;
}

qvdevice::SimulationResult StoryBuilder::run(std::optional<double> until) const {
    return runScenario(scenario_, until);
}

qvdevice::SimulationResult runScenario(const qv::Json& json, std::optional<double> until) {
    std::string error;
    auto scenario = qvdevice::SimulationScenario::fromJson(json, &error);
    if (!scenario) {
        ADD_FAILURE() << "scenario refused: " << error;
        return {};
    }
    auto result = qvdevice::Simulator::run(*scenario, until);
    EXPECT_TRUE(result.ok) << result.error;
    return result;
}

std::string testDatabasePath() {
    return std::string(QV_TEST_DATA_DIR) + "/Simulator/test-database.plist";
}

std::vector<qvdevice::SimulationEvent> eventsOf(const qvdevice::SimulationResult& result,
                                                const std::string& kind, const std::string& call) {
    std::vector<qvdevice::SimulationEvent> found;
    for (const auto& event : result.events) {
        if (event.kind != kind)
            continue;
        if (!call.empty() && event.fields.value("call", "") != call)
            continue;
        found.push_back(event);
    }
    return found;
}

std::vector<std::string> logMessages(const qvdevice::SimulationResult& result) {
    std::vector<std::string> messages;
    for (const auto& event : eventsOf(result, "log")) {
        messages.push_back(event.fields.value("message", ""));
    }
    return messages;
}

bool hasLogLine(const qvdevice::SimulationResult& result, const std::string& message) {
    for (const auto& line : logMessages(result)) {
        if (line == message)
            return true;
    }
    return false;
}

bool hasLogPrefix(const qvdevice::SimulationResult& result, const std::string& prefix) {
    for (const auto& line : logMessages(result)) {
        if (line.rfind(prefix, 0) == 0)
            return true;
    }
    return false;
}

double firstTime(const qvdevice::SimulationResult& result, const std::string& kind,
                 const std::string& call) {
    auto events = eventsOf(result, kind, call);
    return events.empty() ? -1.0 : events.front().t;
}

}  // namespace qvtest
