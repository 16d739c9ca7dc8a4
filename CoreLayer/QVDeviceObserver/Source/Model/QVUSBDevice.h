// QVUSBDevice: the device record of a unit on USB (or a bus like it). Fills itself from the IO
// device snapshot and classifies the snapshot's serial ports by the rules of its database entry:
// which path is port 0, port 1, ... of the model, and which capabilities each found port gets.
// Adds the unit's network interface, if any, with "DataTransport". Used on the framework's
// thread only.
//
// Port strategies (the entry's "DeviceDatabase.PortIdentificationStrategy"), each trying the
// snapshot's port paths in order, first hit wins:
//   "ByFileEnding" - the path ends with the pattern, letter case ignored;
//   "ByPortNumber" - the path at the pattern's leading integer (0-based);
//   "ByRegex"      - the whole path matches the pattern (ICU syntax, case-sensitive, time-limited).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Model/QVDevice.h"

class QVIODevice;
struct QVDatabasePortLayout;

class QVUSBDevice : public QVDevice {
  public:
    static constexpr const char* kByFileEnding = "ByFileEnding";
    static constexpr const char* kByPortNumber = "ByPortNumber";
    static constexpr const char* kByRegex = "ByRegex";

    QVUSBDevice() = default;
    static std::shared_ptr<QVUSBDevice> device();

    std::int32_t vendorID() const { return _vendorID; }
    std::int32_t productID() const { return _productID; }
    void setVendorID(std::int32_t vendorID);
    void setProductID(std::int32_t productID);

    // Availability, IDs, names, driver bundle and location from the snapshot, all through the
    // tracking setters.
    void initializeFromIODevice(const QVIODevice& ioDevice);
    // Empties the interface list; only a list that had members marks the record changed.
    void removeAllInterfaces();
    virtual bool alwaysIdentifyWithATCommands() const { return false; }
    std::shared_ptr<QVDevice> copy() const override;

    // ---- port classification (the database entry must be set) ----
    // Rebuilds the interface list: the serial ports when `classifySerialPorts` (failing the
    // whole classification when they fail), then the network interface. Raises
    // NSInternalInconsistencyException when the entry names an unknown strategy.
    bool couldClassifyPortsFromIODevice(const QVIODevice& ioDevice, bool classifySerialPorts);
    // Port indexes from 0 up to the first one the entry does not describe; NO when a required
    // port is missing or no port was found at all.
    bool couldIdentifySerialPortsFromIODevice(const QVIODevice& ioDevice);
    void assertIsKnownClassificationScheme() const;
    // The path for port `index` by its main pattern, or by its alternatives in order.
    std::optional<std::string> getPortPathForAtIndex(std::uint32_t index,
                                                     const QVIODevice& ioDevice,
                                                     bool useAlternativePathIfExists) const;
    // The strategy's path for one pattern; nil for a nil pattern or an unknown strategy.
    std::optional<std::string> portFromIODeviceWithPattern(const QVIODevice& ioDevice,
                                                           const qv::Value& pattern) const;
    std::optional<std::string> portFromIODeviceWhichEndsWith(const QVIODevice& ioDevice,
                                                             const std::string& ending) const;
    std::optional<std::string> portFromIODeviceAtIndex(const QVIODevice& ioDevice,
                                                       std::uint32_t index) const;
    std::optional<std::string> portFromIODeviceMatchingRegex(const QVIODevice& ioDevice,
                                                             const std::string& regex) const;
    std::shared_ptr<QVSerialInterface> interfaceWithPortPath(const std::string& path) const;
    // Adds to the port with that path, or appends a new serial port (path must be "/dev/cu.*").
    void addCapabilities(const QVCapabilitySet& capabilities, const std::string& path);
    // doesString:matchRegex: the whole string matches; a pattern that does not compile, a
    // subject that is not UTF-8 and a match that runs out of time all answer NO.
    static bool doesString(const std::string& string, const std::string& regex);

    // ---- identification by AT commands (QVGsmKit), QVUSBDeviceATIdentification.cpp ----
    // The probes walk the snapshot's port paths in order, skip every path that holds "diag",
    // "gps" or "wwancntl" in any letter case, and stop at the first port that answers. They block
    // for as long as the modem library takes per port.
    // Command 3 with an unknown ID: sets the Quorvel ID the modem reports.
    bool couldIdentifyWithATCommandsFromIODevice(const QVIODevice& ioDevice);
    // Command 9: {"GTCode", "ProductMarketingName"}, or nil when no port answers. Without a GT
    // code the dictionary is empty (the list it is built from ends at its first nil).
    qv::Value getDeviceDetails(const QVIODevice& ioDevice) const;
    // Command 9 on exactly this port: the model name, or nil on error.
    static std::optional<std::string> fetchDeviceForDeviceWithQVID(std::int32_t quorvelID,
                                                                   const std::string& path);
    std::optional<std::string> fetchDeviceNameUsingCGMM(
        const std::optional<std::string>& path) const;
    // Asks on the serial port with "DeviceInfo"; nil when there is none.
    std::optional<std::string> fetchDeviceNameUsingCGMMFromSuitablePort() const;

    // ---- persistent forms: the record's, then "_vendorID" and "_productID" ----
    std::string className() const override { return "QVUSBDevice"; }
    qv::Value toDictionary() const override;
    static std::shared_ptr<QVUSBDevice> loadDictionary(const qv::Value& dictionary);
    void encodeWithCoder(qv::KeyedArchiver& coder) const override;
    static std::shared_ptr<QVUSBDevice> initWithCoder(qv::KeyedUnarchiver& coder);

  protected:
    bool couldIdentifySerialPortsByLayout(const QVIODevice& ioDevice,
                                          const QVDatabasePortLayout& layout);
    // portFromIODeviceWithPattern with the strategy given instead of read from the entry.
    std::optional<std::string> portWithPatternByStrategy(const QVIODevice& ioDevice,
                                                         const qv::Value& strategy,
                                                         const qv::Value& pattern) const;
    bool isKindOfReceiverClass(const qv::Object& other) const override;
    std::shared_ptr<QVDevice> makeEmptyOfSameClass() const override;
    void readDictionary(const qv::Value& dictionary) override;
    void decodeWithCoder(qv::KeyedUnarchiver& coder) override;

  private:
    // Logs, once per record, a port that udev rules mark as diagnostics or GPS while the database
    // gives it data or control: the model's layout and the rules disagree.
    void reportPortMarkConflicts(const QVIODevice& ioDevice);

    std::int32_t _vendorID = 0;
    bool _reportedPortMarkConflict = false;
    std::int32_t _productID = 0;
};
