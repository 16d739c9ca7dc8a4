// Scripted modem descriptions on any bytes read as JSON, the way a scenario's "modems" member is
// read: the description is refused with a reason or accepted, never a crash. An accepted one
// drives a backend on a virtual run loop: every described port, asked under its path and its
// kernel name (when it has one), answers each command and request as described, and a port it does
// not describe answers "port unavailable"; every request is answered exactly once, and every call
// is recorded.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>

#include "Foundation/JsonValue.h"
#include "FuzzJsonInput.h"
#include "QVGsmKit/GsmResultCodes.h"
#include "QVGsmKit/ScriptedGsmBackend.h"
#include "RunLoop/VirtualRunLoop.h"

namespace {

constexpr std::size_t kMaxInputSize = 8192;
constexpr int kNetworkRequests = 3;

[[noreturn]] void fail(const std::string& port, const char* what) {
    std::fprintf(stderr, "port \"%s\": %s\n", port.c_str(), what);
    std::abort();
}

// Asks `asked` everything once (network information several times) and checks the answers
// against `port`, the description of the port or nullptr.
void drive(qv::ScriptedGsmBackend& backend, qv::VirtualRunLoop& loop,
           const std::shared_ptr<qv::RunLoop>& shared, const std::string& asked,
           const qv::ScriptedModemPort* port) {
    const std::string path = qv::gsmPortPath(asked);
    const qv::GsmDeviceIdentification identity = backend.identifyDevice(path, 1);
    const qv::GsmModelInformation model = backend.modelInformation(path, 1);
    if (port == nullptr) {
        if (identity.error != kGsmErrorPortUnavailable || model.error != kGsmErrorPortUnavailable) {
            fail(path, "an undescribed port answered a command");
        }
    } else {
        const std::int32_t identifyError =
            port->identify ? port->identify->error : kGsmErrorNoResponse;
        const std::int32_t modelError =
            port->modelInfo ? port->modelInfo->error : kGsmErrorNoResponse;
        if (identity.error != identifyError || model.error != modelError) {
            fail(path, "a command answered other than described");
        }
    }

    int answers = 0;
    int requests = 0;
    auto count = [&answers](qv::GsmAnswer) { ++answers; };
    auto expect = [&answers, path](std::int32_t code) {
        return [&answers, path, code](qv::GsmAnswer answer) {
            ++answers;
            if (answer.code != code) {
                fail(path, "a request was answered other than described");
            }
        };
    };
    std::int32_t groundInit = kGsmErrorPortUnavailable;
    std::int32_t deviceInfo = kGsmErrorPortUnavailable;
    if (port != nullptr) {
        groundInit = port->groundInit.value_or(kGsmErrorNoResponse);
        deviceInfo = port->deviceInfo ? port->deviceInfo->code : kGsmErrorNoResponse;
    }
    const qv::GsmRequest request{1, path, shared};
    requests += backend.startGroundInit(request, "AT", expect(groundInit)) ? 1 : 0;
    requests += backend.getDeviceInfo(request, expect(deviceInfo)) ? 1 : 0;
    for (int i = 0; i < kNetworkRequests; ++i) {
        requests += backend.startGetNetworkInfo(request, count) ? 1 : 0;
    }
    if (requests != 2 + kNetworkRequests) {
        fail(path, "a request on a run loop was not started");
    }
    if (answers != 0) {
        fail(path, "a request was answered from inside its start call");
    }
    // Latency is at most an hour a request.
    loop.runUntil(loop.now() + 3601.0);
    if (answers != requests) {
        fail(path, "a request was not answered exactly once");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::optional<qv::Json> json = fuzzInputAsJson(data, size, kMaxInputSize);
    if (!json) {
        return 0;
    }
    std::string error;
    const std::optional<qv::Value> value = qv::valueFromJson(*json, "modems", &error);
    if (!value) {
        return 0;
    }
    const std::shared_ptr<qv::ScriptedGsmBackend> backend =
        qv::ScriptedGsmBackend::fromDescription(*value, &error);
    const std::optional<qv::ScriptedModemDescription> description =
        qv::ScriptedModemDescription::parse(*value, nullptr);
    if (!backend) {
        if (error.empty() || description) {
            fail("", "a description was refused without a reason, or only sometimes");
        }
        return 0;
    }
    if (!description) {
        fail("", "a description was accepted only sometimes");
    }

    auto loop = std::make_shared<qv::VirtualRunLoop>();
    qv::RunLoop::setCurrent(loop);
    std::size_t expectedCalls = 0;
    for (const std::string& path : description->portPaths()) {
        drive(*backend, *loop, loop, path, description->port(path));
        expectedCalls += 4 + kNetworkRequests;
        if (std::optional<std::string> name = qv::gsmPortNameOfPath(path)) {
            drive(*backend, *loop, loop, *name, description->port(path));
            expectedCalls += 4 + kNetworkRequests;
        }
    }
    const std::string other = "/dev/cu.not-described\n";
    drive(*backend, *loop, loop, other, description->port(other));
    expectedCalls += 4 + kNetworkRequests;
    if (backend->calls().size() != expectedCalls) {
        fail("", "a call was not recorded");
    }
    qv::RunLoop::setCurrent(nullptr);
    return 0;
}
