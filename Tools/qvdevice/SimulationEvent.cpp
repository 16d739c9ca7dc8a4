#include "SimulationEvent.h"

#include <cmath>
#include <cstdio>

#include "Foundation/TerminalText.h"

namespace qvdevice {

namespace {

// Virtual times are kept to the microsecond so that the JSON shows 1.5, not 1.5000000000000002.
double roundedTime(double t) {
    return std::round(t * 1e6) / 1e6;
}

std::string deviceSummary(const qv::Json& device) {
    if (!device.is_object()) {
        return "";
    }
    std::string text;
    if (auto name = device.find("_productName"); name != device.end() && name->is_string()) {
        text = name->get<std::string>();
    }
    if (auto id = device.find("_quorvelID"); id != device.end() && id->is_number()) {
        // Appended piece by piece: "#" + text makes GCC 12 at -O3 warn about an overlapping
        // copy inside std::string that cannot happen (-Wrestrict).
        if (!text.empty()) {
            text += ' ';
        }
        text += '#';
        text += id->dump();
    }
    return text.empty() ? device.dump() : text;
}

std::string argvText(const qv::Json& argv) {
    std::string text;
    for (const auto& word : argv) {
        if (!text.empty())
            text += ' ';
        text += word.is_string() ? word.get<std::string>() : word.dump();
    }
    return text;
}

}  // namespace

qv::Json SimulationEvent::device() const {
    if (deviceRecord.empty()) {
        return nullptr;
    }
    return qv::Json::parse(deviceRecord, nullptr, false);
}

std::string SimulationEvent::jsonLine() const {
    qv::Json line = qv::Json::object();
    line["t"] = roundedTime(t);
    line["kind"] = kind;
    for (const auto& [key, value] : fields.items()) {
        line[key] = value;
    }
    std::string text = qv::jsonLineText(line);
    if (!deviceRecord.empty()) {
        text.pop_back();
        text += R"(,"device":)";
        text += deviceRecord;
        text += '}';
    }
    return text;
}

std::string SimulationEvent::prettyLine() const {
    char head[64];
    std::snprintf(head, sizeof head, "%10.3f  %-12s ", roundedTime(t), kind.c_str());
    std::string detail;
    auto field = [&](const char* key) -> const qv::Json* {
        auto it = fields.find(key);
        return it == fields.end() ? nullptr : &*it;
    };
    if (kind == "monitor" || kind == "application" || kind == "gsm" || kind == "app") {
        if (const auto* call = field("call"))
            detail = call->get<std::string>();
        if (const auto* port = field("port"))
            detail += "  " + port->get<std::string>();
        if (!deviceRecord.empty())
            detail += "  " + deviceSummary(device());
        for (const char* key : {"command", "deviceId", "code", "info", "arguments"}) {
            if (const auto* value = field(key))
                detail += std::string("  ") + key + "=" + value->dump();
        }
    } else if (kind == "log") {
        detail = '[';
        detail += field("log")->get<std::string>();
        detail += "] ";
        detail += field("message")->get<std::string>();
    } else if (kind == "exec") {
        detail = argvText(*field("argv"));
    } else if (kind == "notification") {
        detail = field("name")->get<std::string>();
    } else if (const auto* message = field("message")) {
        detail = message->get<std::string>();
    } else {
        detail = fields.dump();
    }
    // One event, one line, and nothing a device or a file says reaches the terminal as a control:
    // line breaks, escape sequences, bells and C1 controls are shown escaped.
    return head + qv::escapedForTerminal(detail);
}

void writeEvents(std::ostream& out, const std::vector<SimulationEvent>& events, bool pretty) {
    for (const auto& event : events) {
        if (pretty) {
            out << event.prettyLine() << '\n';
        } else {
            out << event.jsonLine() << '\n';
        }
    }
}

}  // namespace qvdevice
