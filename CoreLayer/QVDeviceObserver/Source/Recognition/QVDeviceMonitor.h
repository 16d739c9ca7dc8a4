// QVDeviceMonitor: turns device arrivals and departures into recognised device records. It
// registers for every USB row of the built-in table, identifies each attached device on the
// examination ticks of its base class (table lookup or AT questioning, database match, port
// classification, allowed-device rules, power-up wait) and reports to its delegate.
//
// Lives on the thread whose run loop delivers the device notifications; no locks. Identification
// blocks that thread in 0.5 s sleeps while a device powers up, by design: the questioning of one
// device never overlaps another's.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Events/QVDeviceNotificationReceiver.h"
#include "Foundation/Value.h"
#include "Recognition/QVDeviceEventCallbacks.h"
#include "Rules/QVDeviceFilterSubject.h"

struct DevPropertyMatch;
class QVAllowedDeviceRulesEntry;
class QVDevice;
class QVDeviceDatabase;
class QVDeviceDatabaseEntry;
class QVDriverDiskEjector;
class QVUSBDevice;

class QVDeviceMonitor : public QVDeviceNotificationReceiver {
  public:
    // Results of tryToMatchDeviceDatabaseEntryForQVDevice.
    enum MatchCode : int {
        kMatchUndecided = 0,
        kMatchNoRule = 2,
        kMatchRejected = 3,
        kMatchAllowed = 4,
    };
    // How the Quorvel ID was found.
    enum RecognitionApproach : unsigned {
        kApproachNoTableID = 0,
        kApproachTable = 1,
        kApproachATCommands = 2,
    };

    // The shared monitor, made on first use; whichever class asks first decides its class.
    static std::shared_ptr<QVDeviceMonitor> getInstance();
    template <class Monitor>
    static std::shared_ptr<QVDeviceMonitor> getInstanceOfClass();
    static void resetSharedForTesting();

    static std::shared_ptr<QVDeviceMonitor> create();
    ~QVDeviceMonitor() override;

    void setDelegate(QVDeviceEventCallbacks* delegate) { _delegate = delegate; }
    QVDeviceEventCallbacks* delegate() const { return _delegate; }

    void start();
    void teardown();
    bool isStarted() const { return _started; }

    void setAllowedDevicesRules(qv::Value rules) { _allowedDevicesRules = std::move(rules); }
    const qv::Value& allowedDevicesRules() const { return _allowedDevicesRules; }
    bool acceptNotAllowedDevices() const { return _acceptNotAllowedDevices; }
    void setAcceptNotAllowedDevices(bool accept) { _acceptNotAllowedDevices = accept; }

    // A copy of the recognised devices; nil (nullopt) after teardown until the next start.
    std::optional<std::vector<std::shared_ptr<QVDevice>>> identifiedDevices() const;
    bool hasIdentifiedAllDevices() const { return hasHandledAllDevices(); }

    std::shared_ptr<QVAllowedDeviceRulesEntry> allowedDeviceRulesEntryForQuorvelID(
        std::uint32_t quorvelID) const;
    bool isKnownVendor(int vendorID) const { return _knownVendors.count(vendorID) != 0; }
    void updateKnownVendors();

    virtual void registerForDeviceNotifications();
    void listenForNotificationsForTableEntry(const DevPropertyMatch& row);
    static qv::Value ioRegistryMatchingDictForTableEntry(const DevPropertyMatch& row);
    static std::string ioUniqueIdentifierFromDevicePropMatch(const DevPropertyMatch& row);

    void devicesRemoved(const QVIODeviceArray& devices) override;
    void removeRecognizedDeviceForIODevice(const std::shared_ptr<QVIODevice>& ioDevice);
    std::shared_ptr<QVDevice> identifiedDeviceForIODevice(
        const std::shared_ptr<QVIODevice>& ioDevice) const;
    bool hasRecognizedDeviceForIODevice(const std::shared_ptr<QVIODevice>& ioDevice) const {
        return identifiedDeviceForIODevice(ioDevice) != nullptr;
    }
    void dumpAllowedDevices() const;

    // ---- the identification pipeline ----
    void handleDevice(const std::shared_ptr<QVIODevice>& ioDevice) override;
    void tryToIdentifyDevice(const std::shared_ptr<QVIODevice>& ioDevice);
    bool didIdentifyIODevice(const std::shared_ptr<QVIODevice>& ioDevice);
    std::int32_t PowerUpDelayFromIODevice(const QVIODevice& ioDevice) const;
    std::uint32_t quorvelIDFromIODevice(const QVIODevice& ioDevice) const;
    bool canDecideQuorvelIDFromIODevice(const QVIODevice& ioDevice) const {
        return quorvelIDFromIODevice(ioDevice) != 0;
    }
    bool validateSerialPortsAvailability(const QVIODevice& ioDevice,
                                         const std::shared_ptr<QVDeviceDatabaseEntry>& entry) const;
    MatchCode tryToMatchDeviceDatabaseEntryForQVDevice(const std::shared_ptr<QVUSBDevice>& device,
                                                       const std::shared_ptr<QVIODevice>& ioDevice,
                                                       unsigned approach);
    // The filter's verdict as a match code: no rule -> kMatchNoRule, allowed -> kMatchAllowed,
    // anything else -> kMatchRejected.
    MatchCode isAllowedDevice(const std::shared_ptr<QVUSBDevice>& device,
                              const std::shared_ptr<QVIODevice>& ioDeviceOrNull);
    void renameDeviceIfNeccessary(const std::shared_ptr<QVUSBDevice>& device);
    virtual void deviceRecognizedButNoRuleExistForIt(const std::shared_ptr<QVUSBDevice>& device,
                                                     const std::shared_ptr<QVIODevice>& ioDevice);
    void deviceCouldNotBeRecognized(const std::shared_ptr<QVIODevice>& ioDevice);
    void notifyApplicationOfUnidentifiableDevice(const std::shared_ptr<QVIODevice>& ioDevice);
    void timeoutHandlingDevice(const std::shared_ptr<QVIODevice>& ioDevice) override;

    void didStartScheduler() override;
    void didStopScheduler() override;

    const std::shared_ptr<QVDeviceDatabase>& deviceDatabase() const { return _deviceDatabase; }
    const std::shared_ptr<QVDriverDiskEjector>& diskSupressor() const { return _diskSupressor; }
    const std::vector<std::string>& registeredDevicesForTesting() const {
        return _registeredDevices;
    }

  protected:
    QVDeviceMonitor();
    // What the device filter needs to know of a record.
    static QVDeviceFilterSubject filterSubjectOf(const QVUSBDevice& device);
    // Blocks this thread in 0.5 s steps until the device is `delay` seconds old, logging each
    // step when asked to.
    void waitForPowerUp(const QVIODevice& ioDevice, std::int32_t delay, bool logSteps) const;
    void addIdentifiedDevice(const std::shared_ptr<QVDevice>& device);
    // How an attempt that matched kMatchAllowed announces its record; the table pipeline and the
    // generic one differ only in these two points.
    struct Announcement {
        // Not before the device is this many seconds old (the table pipeline's power-up delay);
        // no wait at all without it.
        std::optional<std::int32_t> notBeforeAge;
        // Whether a monitor without a list (torn down meanwhile) starts a new one for the record,
        // or adds it to none.
        bool startsIdentifiedList = false;
    };
    // Hands the IO device to the disk ejector when the database entry asks, names the record from
    // the rules, lists it, logs "Pushing device ..." and tells the delegate. True unless the
    // delegate stopped the monitor since `epoch`.
    bool announceIdentifiedDevice(const std::shared_ptr<QVUSBDevice>& device,
                                  const std::shared_ptr<QVIODevice>& ioDevice, std::uint64_t epoch,
                                  const Announcement& how);
    // The delegate's noteCouldNotIdentifyDevice, when there is a delegate.
    void reportCouldNotIdentify(const std::shared_ptr<QVUSBDevice>& device);
    void pushDevice(const std::shared_ptr<QVUSBDevice>& device);
    std::vector<std::shared_ptr<QVDevice>>* identifiedDevicesArray() {
        return _identifiedDevices ? &*_identifiedDevices : nullptr;
    }

    std::optional<std::vector<std::shared_ptr<QVDevice>>> _identifiedDevices;
    QVDeviceEventCallbacks* _delegate = nullptr;
    std::shared_ptr<QVDeviceDatabase> _deviceDatabase;
    std::shared_ptr<QVDriverDiskEjector> _diskSupressor;
    qv::Value _allowedDevicesRules;
    std::vector<std::string> _registeredDevices;
    bool _acceptNotAllowedDevices = false;
    std::set<int> _knownVendors;
    bool _started = false;

  private:
    static std::shared_ptr<QVDeviceMonitor>& sharedSlot();
};

template <class Monitor>
std::shared_ptr<QVDeviceMonitor> QVDeviceMonitor::getInstanceOfClass() {
    auto& slot = sharedSlot();
    if (!slot) {
        slot = Monitor::create();
    }
    return slot;
}
