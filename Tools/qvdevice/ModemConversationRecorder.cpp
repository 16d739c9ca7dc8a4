#include "ModemConversationRecorder.h"

#include <algorithm>
#include <cctype>
#include <cmath>

#include "IdentifierMasker.h"
#include "QVGsmKit/AtResponseReader.h"
#include "QVGsmKit/GsmResultCodes.h"
#include "QVGsmKit/NullGsmBackend.h"
#include "RunLoop/RunLoop.h"

namespace qvdevice {

namespace {

double milliseconds(double seconds, double most) {
    return std::round(std::clamp(seconds, 0.0, most) * 1000.0) / 1000.0;
}

qv::Value masked(const qv::Value& value, IdentifierMasker* masker) {
    return masker != nullptr ? masker->maskValue(value) : value;
}

std::string maskedText(const std::string& text, IdentifierMasker* masker) {
    return masker != nullptr ? masker->maskText(text) : text;
}

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return text;
}

// A line the simulator may send back: printable ASCII only (the engine drops garbled lines too).
bool printable(const std::string& line) {
    return std::all_of(line.begin(), line.end(),
                       [](unsigned char c) { return c >= 0x20 && c < 0x7f; });
}

std::vector<std::string> splitLines(const std::string& bytes) {
    std::vector<std::string> lines;
    std::string line;
    for (char c : bytes) {
        if (c == '\r' || c == '\n') {
            if (!line.empty()) {
                lines.push_back(std::move(line));
            }
            line.clear();
        } else {
            line += c;
        }
    }
    if (!line.empty()) {
        lines.push_back(std::move(line));
    }
    return lines;
}

}  // namespace

ModemConversationRecorder::ModemConversationRecorder(std::shared_ptr<qv::GsmBackend> real)
    : real_(real ? std::move(real) : std::make_shared<qv::NullGsmBackend>()) {}

double ModemConversationRecorder::now(const std::shared_ptr<qv::RunLoop>& loop) {
    return loop ? loop->now() : qv::RunLoop::current().now();
}

void ModemConversationRecorder::noteLatency(const std::string& path, double seconds) {
    Port& entry = port(path);
    entry.latencySum += std::max(0.0, seconds);
    ++entry.latencyCount;
}

qv::GsmDeviceIdentification ModemConversationRecorder::identifyDevice(const std::string& portPath,
                                                                      std::int32_t deviceId) {
    double start = now(nullptr);
    qv::GsmDeviceIdentification answer = real_->identifyDevice(portPath, deviceId);
    double took = now(nullptr) - start;
    std::lock_guard<std::mutex> lock(mutex_);
    noteLatency(portPath, took);
    Port& entry = port(portPath);
    if (!entry.identify) {
        qv::Value identify{qv::Dictionary{}};
        if (answer.error == 0) {
            identify.set("deviceId", answer.deviceId);
        } else {
            identify.set("error", answer.error);
        }
        entry.identify = std::move(identify);
    }
    return answer;
}

qv::GsmModelInformation ModemConversationRecorder::modelInformation(const std::string& portPath,
                                                                    std::int32_t deviceId) {
    double start = now(nullptr);
    qv::GsmModelInformation answer = real_->modelInformation(portPath, deviceId);
    double took = now(nullptr) - start;
    std::lock_guard<std::mutex> lock(mutex_);
    noteLatency(portPath, took);
    Port& entry = port(portPath);
    if (!entry.modelInfo) {
        qv::Value info{qv::Dictionary{}};
        if (answer.error != 0) {
            info.set("error", answer.error);
        } else {
            for (auto [key, value] : {std::pair{"pmn", &answer.pmn},
                                      std::pair{"manSpecificNumber", &answer.manSpecificNumber},
                                      std::pair{"model", &answer.model}}) {
                if (value->isString()) {
                    info.set(key, *value);
                }
            }
        }
        entry.modelInfo = std::move(info);
    }
    return answer;
}

qv::GsmAnswerHandler ModemConversationRecorder::recordingAnswer(const qv::GsmRequest& request,
                                                                const char* kind,
                                                                qv::GsmAnswerHandler answer) {
    const std::string kindName = kind;
    const std::string path = request.portPath;
    const std::shared_ptr<qv::RunLoop> loop = request.loop;
    const double start = now(loop);
    return [this, kindName, path, loop, start, answer = std::move(answer)](qv::GsmAnswer reply) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            noteLatency(path, now(loop) - start);
            Port& entry = port(path);
            if (kindName == "groundInit") {
                if (!entry.groundInit) {
                    entry.groundInit = reply.code;
                }
            } else if (kindName == "deviceInfo") {
                if (!entry.deviceInfo) {
                    entry.deviceInfo = reply.code == kGsmResultSuccess && reply.data.isDictionary()
                                           ? reply.data
                                           : qv::Value(reply.code);
                }
            } else if (entry.networkInfo.size() < kMaxExchangesPerPort) {
                qv::Value info{qv::Dictionary{}};
                info.set("code", reply.code);
                info.set("complete", reply.complete);
                if (reply.data.isDictionary()) {
                    info.set("info", reply.data);
                }
                entry.networkInfo.push_back(std::move(info));
            }
        }
        answer(std::move(reply));
    };
}

bool ModemConversationRecorder::startGroundInit(const qv::GsmRequest& request,
                                                const std::string& script,
                                                qv::GsmAnswerHandler answer) {
    return real_->startGroundInit(request, script,
                                  recordingAnswer(request, "groundInit", std::move(answer)));
}

bool ModemConversationRecorder::getDeviceInfo(const qv::GsmRequest& request,
                                              qv::GsmAnswerHandler answer) {
    return real_->getDeviceInfo(request, recordingAnswer(request, "deviceInfo", std::move(answer)));
}

bool ModemConversationRecorder::startGetNetworkInfo(const qv::GsmRequest& request,
                                                    qv::GsmAnswerHandler answer) {
    return real_->startGetNetworkInfo(request,
                                      recordingAnswer(request, "networkInfo", std::move(answer)));
}

void ModemConversationRecorder::commandSent(const std::string& portPath, const std::string& command,
                                            double monotonicSeconds) {
    std::lock_guard<std::mutex> lock(mutex_);
    Port& entry = port(portPath);
    if (entry.exchanges.size() < kMaxExchangesPerPort) {
        entry.exchanges.push_back(Exchange{command, {}, monotonicSeconds, -1.0});
    }
}

void ModemConversationRecorder::bytesReceived(const std::string& portPath, std::string_view bytes,
                                              double monotonicSeconds) {
    std::lock_guard<std::mutex> lock(mutex_);
    Port& entry = port(portPath);
    if (entry.exchanges.empty()) {
        return;  // nothing asked yet: a report before the first command belongs to none
    }
    Exchange& exchange = entry.exchanges.back();
    if (exchange.firstByteAt < 0.0) {
        exchange.firstByteAt = monotonicSeconds;
    }
    std::size_t room = kMaxBytesPerCommand - std::min(kMaxBytesPerCommand, exchange.bytes.size());
    exchange.bytes.append(bytes.substr(0, room));
}

qv::Json ModemConversationRecorder::scriptedModems(IdentifierMasker* masker) const {
    std::lock_guard<std::mutex> lock(mutex_);
    qv::Json modems = qv::Json::object();
    for (const auto& [path, entry] : ports_) {
        qv::Json modem = qv::Json::object();
        if (entry.identify) {
            modem["identify"] = qv::jsonFromValue(*entry.identify);
        }
        if (entry.modelInfo) {
            modem["modelInfo"] = qv::jsonFromValue(masked(*entry.modelInfo, masker));
        }
        if (entry.groundInit) {
            modem["groundInit"] = *entry.groundInit;
        }
        if (entry.deviceInfo) {
            modem["deviceInfo"] = qv::jsonFromValue(masked(*entry.deviceInfo, masker));
        }
        if (!entry.networkInfo.empty()) {
            qv::Json answers = qv::Json::array();
            for (const auto& answer : entry.networkInfo) {
                answers.push_back(qv::jsonFromValue(masked(answer, masker)));
            }
            modem["networkInfo"] = std::move(answers);
        }
        if (modem.empty()) {
            continue;  // only the transcript heard of it
        }
        if (entry.latencyCount > 0) {
            modem["latency"] = milliseconds(entry.latencySum / entry.latencyCount, 3600.0);
        }
        modems[path] = std::move(modem);
    }
    return modems;
}

qv::Json ModemConversationRecorder::profileOf(const std::string& path, const Port& port,
                                              IdentifierMasker* masker) {
    qv::Json profile = qv::Json::object();
    profile["name"] = "Recorded modem on " + path;
    profile["source"] = "qvdevice record: the bytes this modem sent to each command";
    std::size_t crlf = 0;
    std::size_t cr = 0;
    std::size_t lf = 0;
    double latencySum = 0.0;
    int latencyCount = 0;
    std::optional<bool> echo;
    qv::Json replies = qv::Json::object();
    for (const Exchange& exchange : port.exchanges) {
        const std::string& bytes = exchange.bytes;
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            if (bytes[i] == '\r' && i + 1 < bytes.size() && bytes[i + 1] == '\n') {
                ++crlf;
                ++i;
            } else if (bytes[i] == '\r') {
                ++cr;
            } else if (bytes[i] == '\n') {
                ++lf;
            }
        }
        if (exchange.firstByteAt >= 0.0) {
            latencySum += exchange.firstByteAt - exchange.sentAt;
            ++latencyCount;
        }
        std::vector<std::string> lines = splitLines(bytes);
        const std::string command = upper(exchange.command);
        bool echoed = !lines.empty() && upper(lines.front()) == command;
        if (!echo && !lines.empty()) {
            echo = echoed;
        }
        if (echoed) {
            lines.erase(lines.begin());
        }
        std::vector<std::string> answer;
        bool final = false;
        for (const auto& line : lines) {
            if (!printable(line)) {
                continue;
            }
            const bool imei = command == "AT+CGSN" || command == "AT+GSN";
            answer.push_back(imei && masker != nullptr ? masker->maskImei(line)
                                                       : maskedText(line, masker));
            if (qv::AtResponseReader::finalResultOf(line) != qv::AtFinal::None) {
                final = true;
                break;
            }
        }
        const std::string key = maskedText(command, masker);
        if (!final || replies.contains(key) || command.empty() || !printable(command)) {
            continue;  // no answer in time: the simulator's own default stands in
        }
        if (answer.size() == 1 && answer.front() != "OK") {
            replies[key] = answer.front();
        } else {
            replies[key] = answer;
        }
    }
    profile["echo"] = echo.value_or(true);
    profile["lineEnd"] = cr > crlf && cr >= lf ? "cr" : (lf > crlf && lf > cr ? "lf" : "crlf");
    profile["latency"] = milliseconds(latencyCount > 0 ? latencySum / latencyCount : 0.0, 60.0);
    profile["replies"] = std::move(replies);
    return profile;
}

std::map<std::string, qv::Json> ModemConversationRecorder::simulatorProfiles(
    IdentifierMasker* masker) const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::map<std::string, qv::Json> profiles;
    for (const auto& [path, entry] : ports_) {
        if (!entry.exchanges.empty()) {
            profiles[path] = profileOf(path, entry, masker);
        }
    }
    return profiles;
}

}  // namespace qvdevice
