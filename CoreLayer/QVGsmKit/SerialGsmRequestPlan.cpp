#include "SerialGsmRequestPlan.h"

#include <cctype>
#include <optional>
#include <utility>

#include "AtAnswerFields.h"
#include "AtAnswerValues.h"
#include "Foundation/Logging.h"
#include "GsmResultCodes.h"

namespace qv {

namespace {

constexpr bool kRequired = true;
constexpr bool kOptional = false;

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

// A command whose answer carries nothing to keep.
AtStep plainStep(std::vector<std::string> commands, bool required) {
    return AtStep{std::move(commands), required, nullptr};
}

// A step whose OK answer goes to `read`.
AtStep readingStep(std::string command, std::function<void(const AtResponse&)> read) {
    return AtStep{{std::move(command)}, kOptional, [read = std::move(read)](const AtResponse& r) {
                      read(r);
                      return true;
                  }};
}

std::function<SerialGsmResult()> answersAsResult(Answers answers) {
    return [answers]() { return SerialGsmResult{0, {}, Value(*answers)}; };
}

}  // namespace

SerialGsmRequestPlan SerialGsmRequestPlan::forRequest(
    SerialGsmRequest request, const std::string& script,
    std::shared_ptr<const ModemModelTable> table) {
    switch (request) {
        case SerialGsmRequest::Identify:
            return identify(std::move(table));
        case SerialGsmRequest::ModelInformation:
            return modelInformation();
        case SerialGsmRequest::GroundInit:
            return groundInit(script);
        case SerialGsmRequest::DeviceInfo:
            return deviceInfo();
        case SerialGsmRequest::NetworkInfo:
            return networkInfo();
    }
    return modelInformation();
}

SerialGsmRequestPlan SerialGsmRequestPlan::identify(std::shared_ptr<const ModemModelTable> table) {
    auto answers = std::make_shared<Dictionary>();
    std::vector<AtStep> steps{
        AtScriptConversation::probe(),
        valueStep({"AT+CGMI", "AT+GMI"}, kRequired, answers, "Manufacturer"),
        valueStep({"AT+CGMM", "AT+GMM"}, kRequired, answers, "Model"),
    };
    auto conclude = [answers, table = std::move(table)]() {
        std::string maker = stringAt(*answers, "Manufacturer");
        std::string model = stringAt(*answers, "Model");
        std::optional<std::int32_t> id = table->lookup(maker, model);
        if (!id) {
            return SerialGsmResult{
                kGsmErrorUnknownModel,
                "unknown modem: maker \"" + maker + "\", model \"" + model + "\"", Value(*answers)};
        }
        answers->set("deviceId", Value(*id));
        return SerialGsmResult{0, {}, Value(*answers)};
    };
    return {std::move(steps), std::move(conclude)};
}

SerialGsmRequestPlan SerialGsmRequestPlan::modelInformation() {
    auto answers = std::make_shared<Dictionary>();
    std::vector<AtStep> steps{
        AtScriptConversation::probe(),
        valueStep({"AT+CGMM", "AT+GMM"}, kRequired, answers, "model"),
    };
    return {std::move(steps), answersAsResult(answers)};
}

SerialGsmRequestPlan SerialGsmRequestPlan::groundInit(const std::string& script) {
    std::vector<AtStep> steps{AtScriptConversation::probe()};
    for (std::string& command : SerialGsmBackend::scriptCommands(script)) {
        steps.push_back(plainStep({std::move(command)}, kRequired));
    }
    // Operator names in plain text from now on; a stick another program left in UCS2 is common.
    // Some modems want the name without quotes (ModemManager src/mm-broadband-modem.c,
    // modem_setup_charset); a modem that knows neither form keeps its set, and the network
    // request decodes what it says.
    steps.push_back(plainStep({"AT+CSCS=\"IRA\"", "AT+CSCS=IRA"}, kOptional));
    return {std::move(steps), []() { return SerialGsmResult{}; }};
}

SerialGsmRequestPlan SerialGsmRequestPlan::deviceInfo() {
    auto answers = std::make_shared<Dictionary>();
    std::vector<AtStep> steps{
        AtScriptConversation::probe(),
        valueStep({"AT+CGMI", "AT+GMI"}, kOptional, answers, "Manufacturer"),
        valueStep({"AT+CGMM", "AT+GMM"}, kOptional, answers, "Model"),
        valueStep({"AT+CGMR", "AT+GMR"}, kOptional, answers, "Revision"),
        valueStep({"AT+CGSN", "AT+GSN"}, kOptional, answers, "IMEI", checkedImei),
        valueStep({"AT+CIMI"}, kOptional, answers, "IMSI"),
        iccidStep(answers),
    };
    auto conclude = [answers]() {
        if (answers->empty()) {
            return SerialGsmResult{
                kGsmErrorCommandRefused, "the modem refused every device information query", {}};
        }
        return SerialGsmResult{0, {}, Value(*answers)};
    };
    return {std::move(steps), std::move(conclude)};
}

SerialGsmRequestPlan SerialGsmRequestPlan::networkInfo() {
    auto answers = std::make_shared<Dictionary>();
    auto charset = std::make_shared<AtCharset>(AtCharset::Unknown);
    std::vector<AtStep> steps{
        AtScriptConversation::probe(),
        readingStep("AT+CSCS?", [charset](const AtResponse& r) { *charset = charsetOf(r); }),
        plainStep({"AT+COPS=3,0"}, kOptional),
        readingStep("AT+COPS?", [answers, charset](
                                    const AtResponse& r) { readOperator(r, *charset, *answers); }),
        readingStep("AT+CSQ", [answers](const AtResponse& r) { readSignal(r, *answers); }),
        readingStep("AT+CREG?", [answers](const AtResponse& r) { readRegistration(r, *answers); }),
    };
    auto conclude = [answers]() {
        if (!answers->contains("Operator") && !answers->contains("SignalQuality")) {
            return SerialGsmResult{kGsmErrorNetworkInfo,
                                   "the modem reported neither operator nor signal",
                                   Value(*answers)};
        }
        return SerialGsmResult{0, {}, Value(*answers)};
    };
    return {std::move(steps), std::move(conclude)};
}

}  // namespace qv
