#include "ModemProfile.h"

#include <cctype>
#include <cmath>
#include <map>

#include "Foundation/BoundedFileReader.h"
#include "Foundation/JsonNesting.h"
#include "Foundation/JsonValue.h"
#include "QVGsmKit/AtResponseReader.h"

namespace qvsim {

namespace {

constexpr std::size_t kMaxProfileBytes = 1024 * 1024;

std::string upper(std::string text) {
    for (char& c : text) {
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    return text;
}

bool printable(const std::string& text) {
    for (char c : text) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
            return false;
        }
    }
    return true;
}

// "replies": command -> a final result ("ERROR"), or the answer's lines, OK added where the last
// one is no final result. Commands are kept in upper case. The problem in words, or nullopt.
std::optional<std::string> readReplies(const qv::Json& value,
                                       std::map<std::string, std::vector<std::string>>& replies) {
    if (!value.is_object()) {
        return "\"replies\" must map commands to answers";
    }
    for (auto reply = value.begin(); reply != value.end(); ++reply) {
        std::string where = "replies[\"" + reply.key() + "\"]";
        std::vector<std::string> lines;
        if (reply.value().is_string()) {
            lines.push_back(reply.value().get<std::string>());
        } else if (reply.value().is_array()) {
            for (const qv::Json& line : reply.value()) {
                if (!line.is_string()) {
                    return where + " must hold strings";
                }
                lines.push_back(line.get<std::string>());
            }
        } else {
            return where + " must be a final result or a list of lines";
        }
        for (const std::string& line : lines) {
            if (!printable(line)) {
                return where + " must hold printable lines";
            }
        }
        if (reply.value().is_string() &&
            qv::AtResponseReader::finalResultOf(lines.front()) == qv::AtFinal::None) {
            return where +
                   ": a single string must be a final result such as "
                   "\"ERROR\" or \"+CME ERROR: 10\"";
        }
        if (lines.empty() ||
            qv::AtResponseReader::finalResultOf(lines.back()) == qv::AtFinal::None) {
            lines.push_back("OK");
        }
        replies[upper(reply.key())] = std::move(lines);
    }
    return std::nullopt;
}

}  // namespace

std::optional<ModemProfile> ModemProfile::fromJsonText(const std::string& text,
                                                       std::string* error) {
    // Deep nesting is refused before the parse, as for every JSON file read.
    if (std::optional<std::string> nesting = qv::jsonNestingProblem(text)) {
        *error = *nesting;
        return std::nullopt;
    }
    qv::Json json = qv::Json::parse(text, nullptr, false);
    if (json.is_discarded() || !json.is_object()) {
        *error = "not a JSON object";
        return std::nullopt;
    }
    ModemProfile profile;
    auto fail = [&](const std::string& why) {
        *error = why;
        return std::nullopt;
    };
    for (auto it = json.begin(); it != json.end(); ++it) {
        const std::string& key = it.key();
        const qv::Json& value = it.value();
        if (key == "name" || key == "source") {
            if (!value.is_string()) {
                return fail("\"" + key + "\" must be a string");
            }
            if (key == "name") {
                profile.name = value.get<std::string>();
            }
        } else if (key == "echo" || key == "silent" || key == "garbage" || key == "simPin" ||
                   key == "noSim" || key == "powerUpNoise" || key == "loseFirstCommand" ||
                   key == "firstCommandError" || key == "bytePerWrite") {
            if (!value.is_boolean()) {
                return fail("\"" + key + "\" must be true or false");
            }
            bool flag = value.get<bool>();
            if (key == "echo") {
                profile.echo = flag;
            } else if (key == "silent") {
                profile.silent = flag;
            } else if (key == "garbage") {
                profile.garbage = flag;
            } else if (key == "simPin" || key == "noSim") {
                if (flag) {
                    if (profile.sim != SimState::Ready) {
                        return fail("\"simPin\" and \"noSim\" exclude each other");
                    }
                    profile.sim = key == "simPin" ? SimState::Pin : SimState::Absent;
                }
            } else if (key == "powerUpNoise") {
                profile.powerUpNoise = flag;
            } else if (key == "loseFirstCommand") {
                profile.loseFirstCommand = flag;
            } else if (key == "firstCommandError") {
                profile.firstCommandError = flag;
            } else {
                profile.bytePerWrite = flag;
            }
        } else if (key == "lineEnd") {
            static const std::map<std::string, std::string> kEnds{{"crlf", "\r\n"},
                                                                  {"cr", "\r"},
                                                                  {"lf", "\n"},
                                                                  {"crcrlf", "\r\r\n"},
                                                                  {"lfcr", "\n\r"}};
            std::string end = value.is_string() ? value.get<std::string>() : "";
            auto it = kEnds.find(end);
            if (it == kEnds.end()) {
                return fail("\"lineEnd\" must be \"crlf\", \"cr\", \"lf\", \"crcrlf\" or \"lfcr\"");
            }
            profile.lineEnd = it->second;
        } else if (key == "latency" || key == "powerUpSilence" || key == "reportEvery") {
            if (!value.is_number() || !std::isfinite(value.get<double>()) ||
                value.get<double>() < 0.0 || value.get<double>() > 60.0) {
                return fail("\"" + key + "\" must be seconds from 0 to 60");
            }
            double seconds = value.get<double>();
            if (key == "reportEvery" && seconds > 0.0 && seconds < 0.01) {
                return fail("\"reportEvery\" must be at least 0.01 seconds");
            }
            (key == "latency"          ? profile.latency
             : key == "powerUpSilence" ? profile.powerUpSilence
                                       : profile.reportEvery) = seconds;
        } else if (key == "hangUpAfter") {
            if (!value.is_number_integer() || value.get<long long>() < 0 ||
                value.get<long long>() > 1000000) {
                return fail("\"hangUpAfter\" must be a number of commands from 0 to 1000000");
            }
            profile.hangUpAfter = static_cast<int>(value.get<long long>());
        } else if (key == "cmee") {
            if (!value.is_number_integer() || value.get<long long>() < 0 ||
                value.get<long long>() > 2) {
                return fail("\"cmee\" must be 0, 1 or 2");
            }
            profile.cmee = static_cast<int>(value.get<long long>());
        } else if (key == "charset") {
            std::string set = value.is_string() ? upper(value.get<std::string>()) : "";
            if (set != "IRA" && set != "GSM" && set != "UCS2") {
                return fail("\"charset\" must be \"IRA\", \"GSM\" or \"UCS2\"");
            }
            profile.charset = set;
        } else if (key == "noise" || key == "reports" || key == "reportsBehindOk") {
            if (!value.is_array()) {
                return fail("\"" + key + "\" must be a list of lines");
            }
            std::vector<std::string>& lines = key == "noise"     ? profile.noise
                                              : key == "reports" ? profile.reports
                                                                 : profile.reportsBehindOk;
            for (const qv::Json& line : value) {
                if (!line.is_string() || !printable(line.get<std::string>()) ||
                    line.get<std::string>().empty()) {
                    return fail("\"" + key + "\" must hold printable lines");
                }
                lines.push_back(line.get<std::string>());
            }
        } else if (key == "replies") {
            if (std::optional<std::string> problem = readReplies(value, profile.replies)) {
                return fail(*problem);
            }
        } else {
            return fail("unknown field \"" + key + "\"");
        }
    }
    if (profile.reportEvery > 0.0 && profile.reports.empty()) {
        *error = "\"reportEvery\" needs \"reports\"";
        return std::nullopt;
    }
    return profile;
}

std::optional<ModemProfile> ModemProfile::fromFile(const std::string& path, std::string* error) {
    std::string reason;
    std::optional<std::string> text =
        qv::readFileUpTo(path, kMaxProfileBytes, qv::FileKinds::AnyReadable, &reason);
    if (!text) {
        *error = path + ": " + reason;
        return std::nullopt;
    }
    std::optional<ModemProfile> profile = fromJsonText(*text, &reason);
    if (!profile) {
        *error = path + ": " + reason;
    }
    return profile;
}

}  // namespace qvsim
