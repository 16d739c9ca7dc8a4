// qvdevice::ModemConversationRecorder: the modem library of a recording (`qvdevice record
// --modem`). It passes every command and request on to the real one (the AT engine) and keeps, per
// port, what the framework got back (the answers a scripted modem gives in `simulate`,
// docs/scripted-modems.md) and, through the engine's transcript, the bytes the modem sent to each
// command (a modem-simulator profile, docs/modem-simulator.md).
//
// Commands are answered on the calling thread, requests and the transcript on the engine's I/O
// thread: everything kept is guarded by one mutex.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Foundation/JsonValue.h"
#include "QVGsmKit/AtTranscript.h"
#include "QVGsmKit/GsmBackend.h"

namespace qvdevice {

class IdentifierMasker;

class ModemConversationRecorder : public qv::GsmBackend, public qv::AtTranscriptListener {
  public:
    explicit ModemConversationRecorder(std::shared_ptr<qv::GsmBackend> real);

    qv::GsmDeviceIdentification identifyDevice(const std::string& portPath,
                                               std::int32_t deviceId) override;
    qv::GsmModelInformation modelInformation(const std::string& portPath,
                                             std::int32_t deviceId) override;
    bool startGroundInit(const qv::GsmRequest& request, const std::string& script,
                         qv::GsmAnswerHandler answer) override;
    bool getDeviceInfo(const qv::GsmRequest& request, qv::GsmAnswerHandler answer) override;
    bool startGetNetworkInfo(const qv::GsmRequest& request, qv::GsmAnswerHandler answer) override;

    void commandSent(const std::string& portPath, const std::string& command,
                     double monotonicSeconds) override;
    void bytesReceived(const std::string& portPath, std::string_view bytes,
                       double monotonicSeconds) override;

    // The `modems` member of the scenario: each port's first answers, its network answers in
    // order, its mean latency. Masked with `masker` unless it is nullptr.
    qv::Json scriptedModems(IdentifierMasker* masker) const;
    // One modem-simulator profile per port that the engine talked to.
    std::map<std::string, qv::Json> simulatorProfiles(IdentifierMasker* masker) const;

    // The most bytes kept per command and the most commands kept per port: a chatty modem
    // cannot make a recording grow without bound.
    static constexpr std::size_t kMaxBytesPerCommand = 16 * 1024;
    static constexpr std::size_t kMaxExchangesPerPort = 4096;

  private:
    struct Exchange {
        std::string command;
        std::string bytes;
        double sentAt = 0.0;
        double firstByteAt = -1.0;
    };
    struct Port {
        std::optional<qv::Value> identify;
        std::optional<qv::Value> modelInfo;
        std::optional<std::int32_t> groundInit;
        std::optional<qv::Value> deviceInfo;
        std::vector<qv::Value> networkInfo;
        double latencySum = 0.0;
        int latencyCount = 0;
        std::vector<Exchange> exchanges;
    };

    Port& port(const std::string& path) { return ports_[path]; }
    void noteLatency(const std::string& path, double seconds);
    qv::GsmAnswerHandler recordingAnswer(const qv::GsmRequest& request, const char* kind,
                                         qv::GsmAnswerHandler answer);
    static double now(const std::shared_ptr<qv::RunLoop>& loop);
    static qv::Json profileOf(const std::string& path, const Port& port, IdentifierMasker* masker);

    mutable std::mutex mutex_;
    std::map<std::string, Port> ports_;
    // Last, so destroyed first: the engine answers what is still waiting as it goes, and those
    // answers are kept while the rest of the recorder is still there.
    std::shared_ptr<qv::GsmBackend> real_;
};

}  // namespace qvdevice
