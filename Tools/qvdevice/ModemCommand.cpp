// qvdevice modem PORT REQUEST [--json] [--timeout SECONDS]: asks a modem on a serial port through
// the AT engine. REQUEST is identify (command 3: the Quorvel ID), model (command 9), init (ground
// initialisation with the framework's script: the result code), info (device information) or
// network (one network-information answer). Exit 0 on success, 1 when the modem failed or did not
// answer in time (the reason on standard error), 2 on a usage mistake.
#include <cmath>
#include <map>
#include <memory>
#include <string>

#include "Application/QVDeviceObserver.h"
#include "CommandContext.h"
#include "Foundation/JsonValue.h"
#include "QVGsmKit/GsmBackend.h"
#include "QVGsmKit/GsmResultCodes.h"
#include "QVGsmKit/SerialGsmBackend.h"

namespace qvdevice {

namespace {

struct ModemOptions {
    std::string port;
    std::string request;
    bool json = false;
    double timeout = 0.0;  // 0: the engine's own bounds
};

const std::map<std::string, qv::SerialGsmRequest>& requests() {
    static const std::map<std::string, qv::SerialGsmRequest> table{
        {"identify", qv::SerialGsmRequest::Identify},
        {"model", qv::SerialGsmRequest::ModelInformation},
        {"init", qv::SerialGsmRequest::GroundInit},
        {"info", qv::SerialGsmRequest::DeviceInfo},
        {"network", qv::SerialGsmRequest::NetworkInfo},
    };
    return table;
}

qv::SerialGsmOptions engineOptions(double timeout) {
    qv::SerialGsmOptions options;
    if (timeout > 0.0) {
        options.requestTimeout = timeout;
        options.probeTimeout = std::min(options.probeTimeout, timeout);
        options.commandTimeout = std::min(options.commandTimeout, timeout);
    }
    return options;
}

void printHuman(std::ostream& out, const std::string& request, const qv::SerialGsmResult& result) {
    if (request == "identify") {
        out << result.data["deviceId"].intValue() << "\n";
    } else if (request == "init") {
        out << kGsmResultSuccess << "\n";
    }
    if (!result.data.isDictionary() || request == "identify") {
        return;
    }
    for (const auto& [key, value] : *result.data.asDictionary()) {
        out << key << ": " << value.stringValue() << "\n";
    }
}

void runModem(const ModemOptions& options, CommandContext& context) {
    qv::SerialGsmBackend backend(engineOptions(options.timeout));
    qv::SerialGsmRequest request = requests().at(options.request);
    std::string script = request == qv::SerialGsmRequest::GroundInit
                             ? QVDeviceObserver::kGroundInitScript
                             : std::string();
    qv::SerialGsmResult result =
        backend.performAndWait(request, qv::gsmPortPath(options.port), script);
    // What the framework's listeners would see: 7 for a request's success, 0 for a command's.
    bool isCommand = request == qv::SerialGsmRequest::Identify ||
                     request == qv::SerialGsmRequest::ModelInformation;
    std::int32_t code = result.code == 0 && !isCommand ? kGsmResultSuccess : result.code;
    if (options.json) {
        qv::Json out = qv::Json::object();
        out["port"] = options.port;
        out["request"] = options.request;
        out["code"] = code;
        out["ok"] = result.code == 0;
        if (result.code == 0 && options.request == "identify") {
            out["quorvelID"] = result.data["deviceId"].intValue();
        }
        if (result.code == 0 && result.data.isDictionary()) {
            out["answer"] = qv::jsonFromValue(result.data);
        }
        if (result.code != 0) {
            out["reason"] = result.reason;
        }
        context.out << out.dump(2) << "\n";
    } else if (result.code == 0) {
        printHuman(context.out, options.request, result);
    }
    if (result.code != 0) {
        context.err << "qvdevice modem: " << options.request << " failed with code " << code << ": "
                    << result.reason << "\n";
        context.exitCode = 1;
    }
}

void addModemCommand(CLI::App& app, CommandContext& context) {
    auto options = std::make_shared<ModemOptions>();
    CLI::App* command =
        app.add_subcommand("modem", "Ask a modem on a serial port through the AT engine");
    command->add_option("PORT", options->port, "kernel name (ttyUSB2) or path (/dev/pts/4)")
        ->required()
        ->check(CLI::Validator(
            [](std::string& port) {
                std::string problem = qv::gsmPortKeyProblem(port);
                return problem.empty() ? problem : "the port " + problem;
            },
            "PORT"));
    command->add_option("REQUEST", options->request, "identify, model, init, info or network")
        ->required()
        ->check(CLI::IsMember({"identify", "model", "init", "info", "network"}));
    command->add_flag("--json", options->json, "print one JSON object");
    command
        ->add_option("--timeout", options->timeout,
                     "most seconds the whole request may take (default 30)")
        ->check(CLI::Validator(
            [](std::string& text) {
                double seconds = 0.0;
                if (CLI::detail::lexical_cast(text, seconds) && std::isfinite(seconds) &&
                    seconds > 0.0 && seconds <= 3600.0) {
                    return std::string();
                }
                return "not a number of seconds above 0 and at most 3600: " + text;
            },
            "SECONDS"));
    command->callback([options, &context]() { runModem(*options, context); });
}

const bool registered = registerCommand("modem", addModemCommand);

}  // namespace

}  // namespace qvdevice
