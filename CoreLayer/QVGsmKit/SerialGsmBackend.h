// qv::SerialGsmBackend: the AT engine on Linux serial ports behind qv::GsmBackend. Every request
// runs as a conversation on the engine's own I/O thread (AtEngine): one at a time per port, any
// number of ports at once. Commands (identifyDevice, modelInformation) block their caller until
// the answer is in; requests answer from the I/O thread, never from inside the start call.
//
// Time bounds (SerialGsmOptions): the first command on a port waits `probeTimeout` (3 s) for an
// answer, so a silent port costs at most that; every later command `commandTimeout` (5 s, so a
// modem that takes 2 s is served); a whole request never more than `requestTimeout` (30 s).
//
// Result codes: see docs/at-engine.md. Success is 0 for the commands and kGsmResultSuccess for
// the requests; kGsmErrorPortUnavailable (11) when the port is missing, not a serial port, busy
// or hangs up; kGsmErrorNoResponse (12) when the modem does not answer in time;
// kGsmErrorCommandRefused (18) when it refuses a command that matters; kGsmErrorNetworkInfo (19)
// when it reports neither operator nor signal; kGsmErrorUnknownModel (21) for a modem the model
// table does not know. 20 (the application must quit) is never answered.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "AtEngine.h"
#include "GsmBackend.h"
#include "ModemModelTable.h"

namespace qv {

struct SerialGsmOptions {
    double probeTimeout = 3.0;
    double commandTimeout = 5.0;
    double requestTimeout = 30.0;
    std::vector<std::string> lockDirectories{"/run/lock", "/var/lock"};
    // The engine's clock; nullptr: the monotonic one. performAndWait's guard against a stuck I/O
    // thread waits in real time whatever the clock.
    std::shared_ptr<PollClock> clock;
};

enum class SerialGsmRequest { Identify, ModelInformation, GroundInit, DeviceInfo, NetworkInfo };

// One request's outcome: `code` 0 on success, otherwise a result code with `reason` in words;
// `data` the answer's dictionary (Identify: "deviceId", "Manufacturer", "Model"; ModelInformation:
// "model", and "pmn" and "manSpecificNumber" where the modem tells them).
struct SerialGsmResult {
    std::int32_t code = 0;
    std::string reason;
    Value data;
};

class SerialGsmBackend : public GsmBackend {
  public:
    // The model table comes from the resources.
    explicit SerialGsmBackend(SerialGsmOptions options = {});
    SerialGsmBackend(SerialGsmOptions options, ModemModelTable table);
    ~SerialGsmBackend() override;

    // Runs one request; `done` is called once, on the I/O thread. `script` is for GroundInit.
    void perform(SerialGsmRequest request, const std::string& portPath, const std::string& script,
                 std::function<void(SerialGsmResult)> done);
    // The same, waiting for the outcome.
    SerialGsmResult performAndWait(SerialGsmRequest request, const std::string& portPath,
                                   const std::string& script = {});

    GsmDeviceIdentification identifyDevice(const std::string& portPath,
                                           std::int32_t deviceId) override;
    GsmModelInformation modelInformation(const std::string& portPath,
                                         std::int32_t deviceId) override;
    bool startGroundInit(const GsmRequest& request, const std::string& script,
                         GsmAnswerHandler answer) override;
    bool getDeviceInfo(const GsmRequest& request, GsmAnswerHandler answer) override;
    bool startGetNetworkInfo(const GsmRequest& request, GsmAnswerHandler answer) override;

    const SerialGsmOptions& options() const { return options_; }
    const ModemModelTable& modelTable() const { return *table_; }

    // The commands of an initialisation script: lines end at "\r\n" (or a lone CR or LF), a
    // leading "[L2N]" is dropped, blank lines are skipped, control characters removed; at most
    // kMaxScriptCommands commands of at most kMaxCommandLength characters.
    static constexpr std::size_t kMaxScriptCommands = 64;
    static constexpr std::size_t kMaxCommandLength = 512;
    static std::vector<std::string> scriptCommands(const std::string& script);

  private:
    SerialGsmOptions options_;
    std::shared_ptr<const ModemModelTable> table_;
    std::unique_ptr<AtEngine> engine_;
};

}  // namespace qv
