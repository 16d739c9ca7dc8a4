// The recordings shipped under Examples/recordings (made by scripts/record-example-sticks.sh with
// `qvdevice record` on fake sticks and the modem simulator) replay through `simulate` with the
// application events of the live run that made them, and their simulator profiles load.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "Application/PlatformFactory.h"
#include "Application/ScriptedDevicePlatform.h"
#include "Foundation/JsonValue.h"
#include "qvdevice/IdentifierMasker.h"
#include "qvdevice/SimulationScenario.h"
#include "qvdevice/Simulator.h"

#ifdef QV_MODEM_PROFILES_DIR
#include "ModemProfile.h"
#endif

namespace {

const std::filesystem::path kRecordings = QV_SOURCE_DIR "/Examples/recordings";

// The application's calls with their devices and values, one string each.
std::vector<std::string> applicationCalls(const std::vector<qv::Json>& lines) {
    std::vector<std::string> calls;
    for (const auto& line : lines) {
        if (line["kind"] == "application") {
            qv::Json copy = line;
            copy.erase("t");
            calls.push_back(copy.dump());
        }
    }
    return calls;
}

std::vector<std::filesystem::path> recordings() {
    std::vector<std::filesystem::path> found;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(kRecordings, ec)) {
        const std::string name = entry.path().filename().string();
        if (name.ends_with(".json") && !name.ends_with(".modem.json")) {
            found.push_back(entry.path());
        }
    }
    std::sort(found.begin(), found.end());
    return found;
}

TEST(ExampleRecordings, ReplayWithTheApplicationEventsOfTheirLiveRun) {
    auto found = recordings();
    ASSERT_FALSE(found.empty()) << "no recordings under " << kRecordings;
    for (const auto& path : found) {
        SCOPED_TRACE(path.filename().string());
        std::string error;
        auto scenario = qvdevice::SimulationScenario::fromFile(path.string(), &error);
        ASSERT_TRUE(scenario) << error;
        auto result = qvdevice::Simulator::run(*scenario);
        qv::PlatformFactory::install(std::make_shared<qv::ScriptedDevicePlatform>());
        ASSERT_TRUE(result.ok) << result.error;
        std::vector<qv::Json> replayed;
        for (const auto& event : result.events) {
            replayed.push_back(qv::Json::parse(event.jsonLine()));
        }

        std::filesystem::path livePath = path;
        livePath.replace_extension(".live.jsonl");
        std::ifstream liveFile(livePath);
        ASSERT_TRUE(liveFile) << livePath;
        std::vector<qv::Json> live;
        for (std::string line; std::getline(liveFile, line);) {
            live.push_back(qv::Json::parse(line));
        }
        auto liveCalls = applicationCalls(live);
        auto replayedCalls = applicationCalls(replayed);
        ASSERT_FALSE(liveCalls.empty());
        // The live run printed the stick's own identifiers, the recording holds masks: compare
        // the calls and devices, and the values where they are not identifiers.
        ASSERT_EQ(replayedCalls.size(), liveCalls.size());
        for (std::size_t i = 0; i < liveCalls.size(); ++i) {
            qv::Json a = qv::Json::parse(liveCalls[i]);
            qv::Json b = qv::Json::parse(replayedCalls[i]);
            EXPECT_EQ(a["call"], b["call"]);
            EXPECT_EQ(a["device"], b["device"]);
            EXPECT_EQ(a.contains("info"), b.contains("info"));
            if (a.contains("info") && a["info"].is_object()) {
                for (const auto& [key, value] : a["info"].items()) {
                    if (!qvdevice::IdentifierMasker::isIdentifierKey(key)) {
                        EXPECT_EQ(b["info"][key], value) << key;
                    } else {
                        EXPECT_NE(b["info"][key], value) << key << " is not masked";
                    }
                }
            }
        }
    }
}

#ifdef QV_MODEM_PROFILES_DIR
TEST(ExampleRecordings, ProfilesLoadInTheModemSimulatorWithMaskedIdentifiers) {
    int profiles = 0;
    for (const auto& entry : std::filesystem::directory_iterator(kRecordings)) {
        if (!entry.path().string().ends_with(".modem.json")) {
            continue;
        }
        ++profiles;
        std::string error;
        auto profile = qvsim::ModemProfile::fromFile(entry.path().string(), &error);
        ASSERT_TRUE(profile) << error;
        auto answer = profile->replies.find("AT+CGSN");
        ASSERT_NE(answer, profile->replies.end()) << entry.path();
        int imeis = 0;
        for (const auto& line : answer->second) {
            if (line.size() == 15 && line.find_first_not_of("0123456789") == std::string::npos) {
                ++imeis;
                EXPECT_NE(line, "353142030000001");  // the simulator's own IMEI
                EXPECT_TRUE(qvdevice::IdentifierMasker::luhnValid(line)) << line;
            }
        }
        EXPECT_EQ(imeis, 1) << entry.path();
    }
    EXPECT_GT(profiles, 0);
}
#endif

}  // namespace
