// qvsim::ModemProfile: how a simulated modem answers, read from a JSON profile file
// (Tools/ModemSimulator/profiles/, format in docs/modem-simulator.md).
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace qvsim {

struct ModemProfile {
    std::string name;
    bool echo = true;  // echo at start (ATE0/ATE1 change it; AT&F and ATZ turn it on)
    std::string lineEnd = "\r\n";
    double latency = 0.0;            // seconds before each answer
    std::vector<std::string> noise;  // unsolicited lines written before each answer
    bool silent = false;             // never answers anything
    bool garbage = false;            // line noise before each answer
    int hangUpAfter = 0;             // hangs up halfway through the answer after this many commands
    bool simPin = false;  // the SIM waits for its PIN: SIM commands answer +CME ERROR: 11
    // Upper-case command -> the lines of the answer, the last one its final result.
    std::map<std::string, std::vector<std::string>> replies;

    // nullopt and the reason for anything else than the documented format.
    static std::optional<ModemProfile> fromJsonText(const std::string& text, std::string* error);
    static std::optional<ModemProfile> fromFile(const std::string& path, std::string* error);
};

}  // namespace qvsim
