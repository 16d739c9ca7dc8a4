// qvsim::ModemProfile: how a simulated modem answers, read from a JSON profile file
// (Tools/ModemSimulator/profiles/, format in docs/modem-simulator.md).
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace qvsim {

enum class SimState { Ready, Pin, Absent };

struct ModemProfile {
    std::string name;
    bool echo = true;  // echo at start (ATE0/ATE1 change it; AT&F and ATZ turn it on)
    std::string lineEnd = "\r\n";
    double latency = 0.0;            // seconds before each answer
    std::vector<std::string> noise;  // unsolicited lines written before each answer
    bool silent = false;             // never answers anything
    bool garbage = false;            // line noise before each answer
    int hangUpAfter = 0;             // hangs up halfway through the answer after this many commands
    SimState sim = SimState::Ready;  // "simPin": SIM commands answer +CME ERROR 11; "noSim": 10
    int cmee = 1;                    // +CME ERROR form at start: 0 "ERROR", 1 number, 2 text
    std::string charset = "IRA";     // +CSCS at start; "UCS2" writes +COPS names in hex
    double powerUpSilence = 0.0;     // seconds after start during which commands go unheard
    bool powerUpNoise = false;       // NUL and 0xFF bytes before the first answer
    bool loseFirstCommand = false;   // the first command is swallowed
    bool firstCommandError = false;  // the first command answers ERROR (a buffer left dirty)
    bool bytePerWrite = false;       // every byte of every answer in a write of its own
    double reportEvery = 0.0;        // seconds between periodic reports (0: none)
    std::vector<std::string> reports;          // the periodic reports, in turn
    std::vector<std::string> reportsBehindOk;  // written right behind each final result
    // Upper-case command -> the lines of the answer, the last one its final result.
    std::map<std::string, std::vector<std::string>> replies;

    // nullopt and the reason for anything else than the documented format.
    static std::optional<ModemProfile> fromJsonText(const std::string& text, std::string* error);
    static std::optional<ModemProfile> fromFile(const std::string& path, std::string* error);
};

}  // namespace qvsim
