#include "ScriptedModemDescription.h"

#include <cmath>
#include <initializer_list>
#include <limits>
#include <utility>

#include "Foundation/Format.h"
#include "Foundation/JsonValue.h"
#include "GsmResultCodes.h"

namespace qv {

namespace {

constexpr double kMaxLatency = 3600.0;

// Collects the first problem; every check answers whether the value was right.
class Checker {
  public:
    Checker(std::string port, std::string* error) : port_(std::move(port)), error_(error) {}

    bool fail(const std::string& field, const std::string& problem) {
        if (error_ != nullptr) {
            *error_ = format("port \"%s\": \"%s\" %s", port_, field, problem);
        }
        return false;
    }

    bool failPort(const std::string& problem) {
        if (error_ != nullptr) {
            *error_ = format("port \"%s\": %s", port_, problem);
        }
        return false;
    }

    bool onlyKnownFields(const Value& dictionary, const std::string& where,
                         std::initializer_list<const char*> known) {
        for (const auto& entry : *dictionary.asDictionary()) {
            bool isKnown = false;
            for (const char* name : known) {
                isKnown = isKnown || entry.first == name;
            }
            if (!isKnown) {
                return fail(where.empty() ? entry.first : where + "." + entry.first,
                            "is not a known field");
            }
        }
        return true;
    }

    bool int32(const Value& value, const std::string& field, std::int32_t* out) {
        if (!value.isInteger() || value.integerValue() < std::numeric_limits<std::int32_t>::min() ||
            value.integerValue() > std::numeric_limits<std::int32_t>::max()) {
            return fail(field, "must be a 32-bit integer");
        }
        *out = static_cast<std::int32_t>(value.integerValue());
        return true;
    }

    bool errorCode(const Value& value, const std::string& field, std::int32_t* out) {
        if (!int32(value, field, out)) {
            return false;
        }
        return *out != 0 || fail(field, "must not be 0 (0 is success)");
    }

    bool optionalString(const Value& dictionary, const char* key, const std::string& where,
                        Value* out) {
        const Value& value = dictionary[key];
        if (value.isNil()) {
            return true;
        }
        if (!value.isString()) {
            return fail(where + "." + key, "must be a string");
        }
        *out = value;
        return true;
    }

  private:
    std::string port_;
    std::string* error_;
};

bool readIdentify(const Value& value, Checker& check, ScriptedModemPort* port) {
    if (!value.isDictionary()) {
        return check.fail("identify", "must be a dictionary with \"deviceId\" or \"error\"");
    }
    if (!check.onlyKnownFields(value, "identify", {"deviceId", "error"})) {
        return false;
    }
    GsmDeviceIdentification answer;
    bool hasId = value.asDictionary()->contains("deviceId");
    bool hasError = value.asDictionary()->contains("error");
    if (hasId == hasError) {
        return check.fail("identify", "needs exactly one of \"deviceId\" and \"error\"");
    }
    if (hasId ? !check.int32(value["deviceId"], "identify.deviceId", &answer.deviceId)
              : !check.errorCode(value["error"], "identify.error", &answer.error)) {
        return false;
    }
    port->identify = answer;
    return true;
}

bool readModelInfo(const Value& value, Checker& check, ScriptedModemPort* port) {
    if (!value.isDictionary()) {
        return check.fail("modelInfo", "must be a dictionary");
    }
    if (!check.onlyKnownFields(value, "modelInfo",
                               {"pmn", "manSpecificNumber", "model", "error"})) {
        return false;
    }
    GsmModelInformation answer;
    if (value.asDictionary()->contains("error")) {
        if (value.count() != 1) {
            return check.fail("modelInfo", "holds either \"error\" or the answers, not both");
        }
        if (!check.errorCode(value["error"], "modelInfo.error", &answer.error)) {
            return false;
        }
    } else if (!check.optionalString(value, "pmn", "modelInfo", &answer.pmn) ||
               !check.optionalString(value, "manSpecificNumber", "modelInfo",
                                     &answer.manSpecificNumber) ||
               !check.optionalString(value, "model", "modelInfo", &answer.model)) {
        return false;
    }
    port->modelInfo = answer;
    return true;
}

bool readDeviceInfo(const Value& value, Checker& check, ScriptedModemPort* port) {
    GsmAnswer answer;
    if (value.isDictionary()) {
        answer.code = kGsmResultSuccess;
        answer.data = value;
    } else if (!value.isInteger()) {
        return check.fail("deviceInfo", "must be a dictionary (the answer) or a result code");
    } else if (!check.int32(value, "deviceInfo", &answer.code)) {
        return false;
    }
    port->deviceInfo = answer;
    return true;
}

bool readNetworkInfo(const Value& value, Checker& check, ScriptedModemPort* port) {
    if (!value.isArray() || value.count() == 0) {
        return check.fail("networkInfo", "must be a list of at least one answer");
    }
    for (std::size_t i = 0; i < value.count(); ++i) {
        const Value& item = value.at(i);
        std::string where = format("networkInfo[%lu]", i);
        if (!item.isDictionary()) {
            return check.fail(where, "must be a dictionary with \"code\"");
        }
        if (!check.onlyKnownFields(item, where, {"code", "complete", "info"})) {
            return false;
        }
        GsmAnswer answer;
        if (!item.asDictionary()->contains("code")) {
            return check.fail(where + ".code", "is missing");
        }
        if (!check.int32(item["code"], where + ".code", &answer.code)) {
            return false;
        }
        const Value& complete = item["complete"];
        if (complete.isBoolean()) {
            answer.complete = complete.boolValue() ? 1 : 0;
        } else if (!complete.isNil() &&
                   !check.int32(complete, where + ".complete", &answer.complete)) {
            return false;
        }
        const Value& info = item["info"];
        if (!info.isNil() && !info.isDictionary()) {
            return check.fail(where + ".info", "must be a dictionary");
        }
        answer.data = info;
        port->networkInfo.push_back(std::move(answer));
    }
    return true;
}

bool readLatency(const Value& value, Checker& check, ScriptedModemPort* port) {
    double seconds = value.doubleValue();
    if (!(value.isInteger() || value.isReal()) || !std::isfinite(seconds) || seconds < 0.0 ||
        seconds > kMaxLatency) {
        return check.fail("latency", "must be a number of seconds from 0 to 3600");
    }
    port->latency = seconds;
    return true;
}

}  // namespace

std::optional<ScriptedModemDescription> ScriptedModemDescription::parse(const Value& description,
                                                                        std::string* error) {
    ScriptedModemDescription result;
    if (description.isNil()) {
        return result;
    }
    if (!description.isDictionary()) {
        if (error != nullptr) {
            *error = "the modem description must be a dictionary of ports";
        }
        return std::nullopt;
    }
    for (const auto& [key, value] : *description.asDictionary()) {
        if (std::string problem = gsmPortKeyProblem(key); !problem.empty()) {
            if (error != nullptr) {
                // Quoted as JSON so that a hostile key cannot reach a terminal as controls.
                *error =
                    format("port %s %s",
                           Json(key).dump(-1, ' ', false, Json::error_handler_t::replace), problem);
            }
            return std::nullopt;
        }
        std::string path = gsmPortPath(key);
        Checker check(path, error);
        if (result.ports_.count(path) != 0) {
            check.failPort("is described twice");
            return std::nullopt;
        }
        if (!value.isDictionary()) {
            check.failPort("must be a dictionary of answers");
            return std::nullopt;
        }
        if (!check.onlyKnownFields(
                value, "",
                {"identify", "modelInfo", "groundInit", "deviceInfo", "networkInfo", "latency"})) {
            return std::nullopt;
        }
        ScriptedModemPort port;
        std::int32_t groundInit = 0;
        bool ok =
            (value["identify"].isNil() || readIdentify(value["identify"], check, &port)) &&
            (value["modelInfo"].isNil() || readModelInfo(value["modelInfo"], check, &port)) &&
            (value["groundInit"].isNil() ||
             check.int32(value["groundInit"], "groundInit", &groundInit)) &&
            (value["deviceInfo"].isNil() || readDeviceInfo(value["deviceInfo"], check, &port)) &&
            (value["networkInfo"].isNil() || readNetworkInfo(value["networkInfo"], check, &port)) &&
            (value["latency"].isNil() || readLatency(value["latency"], check, &port));
        if (!ok) {
            return std::nullopt;
        }
        if (!value["groundInit"].isNil()) {
            port.groundInit = groundInit;
        }
        result.ports_.emplace(path, std::move(port));
    }
    return result;
}

const ScriptedModemPort* ScriptedModemDescription::port(const std::string& path) const {
    auto it = ports_.find(path);
    return it != ports_.end() ? &it->second : nullptr;
}

std::vector<std::string> ScriptedModemDescription::portPaths() const {
    std::vector<std::string> paths;
    for (const auto& entry : ports_) {
        paths.push_back(entry.first);
    }
    return paths;
}

}  // namespace qv
