#include "SerialGsmBackend.h"

#include <cctype>
#include <chrono>
#include <future>
#include <utility>

#include "AtAnswerFields.h"
#include "AtAnswerValues.h"
#include "AtScriptConversation.h"
#include "Foundation/Logging.h"
#include "GsmResultCodes.h"

namespace qv {

namespace {

using Answers = std::shared_ptr<Dictionary>;
using Check = std::function<std::optional<std::string>(std::string_view, std::string*)>;

void logRejected(const std::string& what, const std::string& why) {
    logRecognition("AT engine: %s left out: %s", what, why);
}

// A step that keeps the first value of the answer under `key` (when the modem said anything
// that passes `check`; a value that does not is left out with a log line, and the step's next
// command is tried).
AtStep valueStep(std::vector<std::string> commands, bool required, Answers answers, std::string key,
                 Check check = nullptr) {
    return AtStep{std::move(commands), required,
                  [answers, key = std::move(key), check](const AtResponse& response) {
                      std::string value = response.firstValue();
                      if (value.empty()) {
                          return true;
                      }
                      if (check) {
                          std::string why;
                          std::optional<std::string> checked = check(value, &why);
                          if (!checked) {
                              logRejected(key, why);
                              return false;
                          }
                          value = std::move(*checked);
                      }
                      answers->set(key, Value(std::move(value)));
                      return true;
                  }};
}

std::string stringAt(const Dictionary& answers, std::string_view key) {
    const Value* value = answers.find(key);
    return value != nullptr ? value->stringValue() : std::string();
}

// The ICCID: the plain commands first, then the SIM's own file. "AT^ICCID?" is Huawei's read
// form, answered even while the SIM waits for its PIN, when "+CRSM" is refused (ModemManager
// src/plugins/huawei/mm-sim-huawei.c; modemmanager-devel, "[PATCH] huawei: fix ^ICCID parsing",
// 2013-09-25).
AtStep iccidStep(Answers answers) {
    return AtStep{{"AT+CCID", "AT^ICCID?", "AT+ICCID", "AT+CRSM=176,12258,0,0,10"},
                  false,
                  [answers](const AtResponse& response) {
                      if (response.lines.empty()) {
                          return false;
                      }
                      std::string why;
                      std::optional<std::string> iccid =
                          response.lines.front().starts_with("+CRSM")
                              ? iccidFromCrsmLine(response.lines.front(), &why)
                              : checkedIccid(response.firstValue(), &why);
                      if (!iccid) {
                          logRejected("ICCID", why);
                          return false;
                      }
                      answers->set("ICCID", Value(std::move(*iccid)));
                      return true;
                  }};
}

// +CSCS? answers `+CSCS: "UCS2"`.
AtCharset charsetOf(const AtResponse& response) {
    for (const std::string& line : response.lines) {
        std::vector<std::string> fields = atFields(line);
        if (!fields.empty()) {
            std::string name = fields[0];
            for (char& c : name) {
                c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
            }
            return name == "UCS2" ? AtCharset::Ucs2 : AtCharset::Ascii;
        }
    }
    return AtCharset::Unknown;
}

// +COPS? answers `+COPS: mode[,format,"operator"[,AcT]]`.
void readOperator(const AtResponse& response, AtCharset charset, Dictionary& answers) {
    for (const std::string& line : response.lines) {
        std::vector<std::string> fields = atFields(line);
        if (fields.size() >= 3) {
            std::string why;
            std::optional<std::string> name = operatorName(fields[2], charset, &why);
            if (!name) {
                logRejected("Operator", why);
                return;
            }
            answers.set("Operator", Value(std::move(*name)));
            if (std::optional<int> act = atIntegerField(fields, 3)) {
                std::string rat = radioAccessTechnologyName(*act);
                if (!rat.empty()) {
                    answers.set("RAT", Value(rat));
                }
            }
            return;
        }
    }
}

// +CSQ answers `+CSQ: rssi,ber`; rssi 99 means not known.
void readSignal(const AtResponse& response, Dictionary& answers) {
    for (const std::string& line : response.lines) {
        std::vector<std::string> fields = atFields(line);
        if (std::optional<int> rssi = atIntegerField(fields, 0)) {
            std::string why;
            if (std::optional<int> quality = signalQuality(*rssi, &why)) {
                answers.set("SignalQuality", Value(*quality));
            } else {
                logRejected("SignalQuality", why);
            }
            return;
        }
    }
}

// +CREG? answers `+CREG: n,stat[,...]` (the reader has told unsolicited reports apart already).
void readRegistration(const AtResponse& response, Dictionary& answers) {
    for (const std::string& line : response.lines) {
        std::vector<std::string> fields = atFields(line);
        if (fields.size() >= 2) {
            if (std::optional<int> stat = atIntegerField(fields, 1); stat && *stat <= 10) {
                answers.set("RegistrationState", Value(*stat));
                return;
            }
        }
    }
}

}  // namespace

SerialGsmBackend::SerialGsmBackend(SerialGsmOptions options)
    : SerialGsmBackend(options, [] {
          std::string error;
          ModemModelTable table = ModemModelTable::fromResources(&error);
          if (!error.empty()) {
              logRecognition("AT engine: no modem model table: %s", error);
          }
          return table;
      }()) {}

SerialGsmBackend::SerialGsmBackend(SerialGsmOptions options, ModemModelTable table)
    : options_(std::move(options)),
      table_(std::make_shared<const ModemModelTable>(std::move(table))) {
    AtEngineOptions engineOptions;
    engineOptions.lockDirectories = options_.lockDirectories;
    engineOptions.conversationTimeout = options_.requestTimeout;
    engineOptions.clock = options_.clock;
    engine_ = std::make_unique<AtEngine>(std::move(engineOptions));
}

SerialGsmBackend::~SerialGsmBackend() = default;

std::vector<std::string> SerialGsmBackend::scriptCommands(const std::string& script) {
    std::vector<std::string> commands;
    std::string line;
    auto endLine = [&]() {
        std::string_view text = line;
        if (text.starts_with("[L2N]")) {
            text.remove_prefix(5);
        }
        while (!text.empty() && text.front() == ' ') {
            text.remove_prefix(1);
        }
        while (!text.empty() && text.back() == ' ') {
            text.remove_suffix(1);
        }
        if (!text.empty() && commands.size() < kMaxScriptCommands) {
            commands.emplace_back(text.substr(0, kMaxCommandLength));
        }
        line.clear();
    };
    for (char c : script) {
        if (c == '\r' || c == '\n') {
            endLine();
        } else if (static_cast<unsigned char>(c) >= 0x20 && c != 0x7F) {
            line.push_back(c);
        }
    }
    endLine();
    return commands;
}

void SerialGsmBackend::perform(SerialGsmRequest request, const std::string& portPath,
                               const std::string& script,
                               std::function<void(SerialGsmResult)> done) {
    auto answers = std::make_shared<Dictionary>();
    std::vector<AtStep> steps;
    std::int32_t refused = kGsmErrorCommandRefused;
    std::function<SerialGsmResult()> conclude = [answers]() {
        return SerialGsmResult{0, {}, Value(*answers)};
    };
    AtScriptTimeouts timeouts{options_.probeTimeout, options_.commandTimeout};

    switch (request) {
        case SerialGsmRequest::Identify: {
            steps.push_back(AtScriptConversation::probe());
            steps.push_back(valueStep({"AT+CGMI", "AT+GMI"}, true, answers, "Manufacturer"));
            steps.push_back(valueStep({"AT+CGMM", "AT+GMM"}, true, answers, "Model"));
            std::shared_ptr<const ModemModelTable> table = table_;
            conclude = [answers, table]() {
                std::string maker = stringAt(*answers, "Manufacturer");
                std::string model = stringAt(*answers, "Model");
                std::optional<std::int32_t> id = table->lookup(maker, model);
                if (!id) {
                    return SerialGsmResult{
                        kGsmErrorUnknownModel,
                        "unknown modem: maker \"" + maker + "\", model \"" + model + "\"",
                        Value(*answers)};
                }
                answers->set("deviceId", Value(*id));
                return SerialGsmResult{0, {}, Value(*answers)};
            };
            break;
        }
        case SerialGsmRequest::ModelInformation:
            steps.push_back(AtScriptConversation::probe());
            steps.push_back(valueStep({"AT+CGMM", "AT+GMM"}, true, answers, "model"));
            break;
        case SerialGsmRequest::GroundInit: {
            steps.push_back(AtScriptConversation::probe());
            for (std::string& command : scriptCommands(script)) {
                steps.push_back(AtStep{{std::move(command)}, true, nullptr});
            }
            // Operator names in plain text from now on; a stick another program left in UCS2 is
            // common. Some modems want the name without quotes (ModemManager
            // src/mm-broadband-modem.c, modem_setup_charset); a modem that knows neither form
            // keeps its set, and the network request decodes what it says.
            steps.push_back(AtStep{{"AT+CSCS=\"IRA\"", "AT+CSCS=IRA"}, false, nullptr});
            conclude = []() { return SerialGsmResult{}; };
            break;
        }
        case SerialGsmRequest::DeviceInfo:
            steps.push_back(AtScriptConversation::probe());
            steps.push_back(valueStep({"AT+CGMI", "AT+GMI"}, false, answers, "Manufacturer"));
            steps.push_back(valueStep({"AT+CGMM", "AT+GMM"}, false, answers, "Model"));
            steps.push_back(valueStep({"AT+CGMR", "AT+GMR"}, false, answers, "Revision"));
            steps.push_back(valueStep({"AT+CGSN", "AT+GSN"}, false, answers, "IMEI", checkedImei));
            steps.push_back(valueStep({"AT+CIMI"}, false, answers, "IMSI"));
            steps.push_back(iccidStep(answers));
            conclude = [answers]() {
                if (answers->empty()) {
                    return SerialGsmResult{kGsmErrorCommandRefused,
                                           "the modem refused every device information query",
                                           {}};
                }
                return SerialGsmResult{0, {}, Value(*answers)};
            };
            break;
        case SerialGsmRequest::NetworkInfo: {
            auto charset = std::make_shared<AtCharset>(AtCharset::Unknown);
            steps.push_back(AtScriptConversation::probe());
            steps.push_back(AtStep{{"AT+CSCS?"}, false, [charset](const AtResponse& response) {
                                       *charset = charsetOf(response);
                                       return true;
                                   }});
            steps.push_back(AtStep{{"AT+COPS=3,0"}, false, nullptr});
            steps.push_back(
                AtStep{{"AT+COPS?"}, false, [answers, charset](const AtResponse& response) {
                           readOperator(response, *charset, *answers);
                           return true;
                       }});
            steps.push_back(AtStep{{"AT+CSQ"}, false, [answers](const AtResponse& response) {
                                       readSignal(response, *answers);
                                       return true;
                                   }});
            steps.push_back(AtStep{{"AT+CREG?"}, false, [answers](const AtResponse& response) {
                                       readRegistration(response, *answers);
                                       return true;
                                   }});
            conclude = [answers]() {
                if (!answers->contains("Operator") && !answers->contains("SignalQuality")) {
                    return SerialGsmResult{kGsmErrorNetworkInfo,
                                           "the modem reported neither operator nor signal",
                                           Value(*answers)};
                }
                return SerialGsmResult{0, {}, Value(*answers)};
            };
            break;
        }
    }

    auto completion = [done = std::move(done), conclude = std::move(conclude)](
                          std::int32_t code, const std::string& reason) {
        if (!done) {
            return;
        }
        done(code == 0 ? conclude() : SerialGsmResult{code, reason, {}});
    };
    engine_->submit(std::make_unique<AtScriptConversation>(portPath, std::move(steps), timeouts,
                                                           refused, std::move(completion)));
}

SerialGsmResult SerialGsmBackend::performAndWait(SerialGsmRequest request,
                                                 const std::string& portPath,
                                                 const std::string& script) {
    auto promise = std::make_shared<std::promise<SerialGsmResult>>();
    std::future<SerialGsmResult> future = promise->get_future();
    perform(request, portPath, script,
            [promise](SerialGsmResult result) { promise->set_value(std::move(result)); });
    // The engine bounds every conversation; this only guards against a stuck I/O thread.
    auto bound =
        std::chrono::duration<double>(options_.requestTimeout + options_.probeTimeout + 5.0);
    if (future.wait_for(bound) != std::future_status::ready) {
        return SerialGsmResult{kGsmErrorNoResponse, portPath + ": no answer in time", {}};
    }
    return future.get();
}

GsmDeviceIdentification SerialGsmBackend::identifyDevice(const std::string& portPath,
                                                         std::int32_t) {
    SerialGsmResult result = performAndWait(SerialGsmRequest::Identify, portPath);
    if (result.code != 0) {
        return GsmDeviceIdentification{result.code, 0};
    }
    return GsmDeviceIdentification{0, result.data["deviceId"].intValue()};
}

GsmModelInformation SerialGsmBackend::modelInformation(const std::string& portPath, std::int32_t) {
    SerialGsmResult result = performAndWait(SerialGsmRequest::ModelInformation, portPath);
    GsmModelInformation information;
    information.error = result.code;
    if (result.code == 0) {
        information.model = result.data["model"];
        information.pmn = result.data["pmn"];
        information.manSpecificNumber = result.data["manSpecificNumber"];
    }
    return information;
}

namespace {

std::function<void(SerialGsmResult)> answering(GsmAnswerHandler answer, bool withData) {
    return [answer = std::move(answer), withData](SerialGsmResult result) {
        if (!answer) {
            return;
        }
        GsmAnswer reply;
        reply.code = result.code == 0 ? kGsmResultSuccess : result.code;
        if (result.code == 0 && withData) {
            reply.data = std::move(result.data);
        }
        reply.complete = 1;
        answer(std::move(reply));
    };
}

}  // namespace

bool SerialGsmBackend::startGroundInit(const GsmRequest& request, const std::string& script,
                                       GsmAnswerHandler answer) {
    perform(SerialGsmRequest::GroundInit, request.portPath, script,
            answering(std::move(answer), false));
    return true;
}

bool SerialGsmBackend::getDeviceInfo(const GsmRequest& request, GsmAnswerHandler answer) {
    perform(SerialGsmRequest::DeviceInfo, request.portPath, {}, answering(std::move(answer), true));
    return true;
}

bool SerialGsmBackend::startGetNetworkInfo(const GsmRequest& request, GsmAnswerHandler answer) {
    perform(SerialGsmRequest::NetworkInfo, request.portPath, {},
            answering(std::move(answer), true));
    return true;
}

}  // namespace qv
