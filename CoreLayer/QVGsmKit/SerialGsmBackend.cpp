#include "SerialGsmBackend.h"

#include <chrono>
#include <future>
#include <utility>

#include "AtScriptConversation.h"
#include "Foundation/Logging.h"
#include "GsmResultCodes.h"
#include "SerialGsmRequestPlan.h"

namespace qv {

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
    SerialGsmRequestPlan plan = SerialGsmRequestPlan::forRequest(request, script, table_);
    auto completion = [done = std::move(done), conclude = std::move(plan.conclude)](
                          std::int32_t code, const std::string& reason) {
        if (!done) {
            return;
        }
        done(code == 0 ? conclude() : SerialGsmResult{code, reason, {}});
    };
    AtScriptTimeouts timeouts{options_.probeTimeout, options_.commandTimeout};
    engine_->submit(std::make_unique<AtScriptConversation>(
        portPath, std::move(plan.steps), timeouts, kGsmErrorCommandRefused, std::move(completion)));
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
