// qv::SerialGsmRequestPlan: what one request of the serial backend asks a modem, as a list of
// steps (AtScriptConversation), and how the answers it collected become the request's result.
// One function per request, each its commands in the order they are sent.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "AtScriptConversation.h"
#include "ModemModelTable.h"
#include "SerialGsmBackend.h"

namespace qv {

struct SerialGsmRequestPlan {
    std::vector<AtStep> steps;
    // Called once every step is done (the conversation ended with code 0).
    std::function<SerialGsmResult()> conclude;

    static SerialGsmRequestPlan forRequest(SerialGsmRequest request, const std::string& script,
                                           std::shared_ptr<const ModemModelTable> table);

    static SerialGsmRequestPlan identify(std::shared_ptr<const ModemModelTable> table);
    static SerialGsmRequestPlan modelInformation();
    static SerialGsmRequestPlan groundInit(const std::string& script);
    static SerialGsmRequestPlan deviceInfo();
    static SerialGsmRequestPlan networkInfo();
};

}  // namespace qv
