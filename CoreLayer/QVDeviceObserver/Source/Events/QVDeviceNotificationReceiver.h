// QVDeviceNotificationReceiver: the base of every component that acts on attached devices (the
// device monitor, the driver disk ejector, the serial port enabler). It keeps the devices it has
// not finished with, in arrival order, and while any are listed a repeating one-second timer offers
// each to handleDevice() until the subclass removes it, a "DeviceRemoved" notification takes it
// out, or it is older than the handling time-out.
//
// Owned by a std::shared_ptr (subscribing hands the center a reference to the receiver itself).
// Lives on the thread whose run loop carries the notification port and the timer. Builds without
// NDEBUG abort when another thread calls in while the first one to use the receiver still runs
// (qv::ThreadOwner).
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Foundation/Object.h"
#include "Foundation/ThreadOwner.h"
#include "Foundation/Value.h"
#include "QVDeviceNotificationObserver.h"
#include "QVIODevice.h"
#include "RunLoop/RunLoop.h"

class QVDeviceNotificationReceiver
    : public qv::Object,
      public QVDeviceNotificationObserver,
      public std::enable_shared_from_this<QVDeviceNotificationReceiver> {
  public:
    static constexpr double kDefaultHandlingTimeout = 30.0;

    QVDeviceNotificationReceiver() = default;
    ~QVDeviceNotificationReceiver() override;
    QVDeviceNotificationReceiver(const QVDeviceNotificationReceiver&) = delete;
    QVDeviceNotificationReceiver& operator=(const QVDeviceNotificationReceiver&) = delete;

    // ---- what subclasses override ----
    // Called once per examination tick for every listed device; call removeDevice() when done.
    // The base raises NSInternalInconsistencyException.
    virtual void handleDevice(const std::shared_ptr<QVIODevice>& device);
    // The base logs "Timeout handling device: ..."; the device is removed afterwards either way.
    virtual void timeoutHandlingDevice(const std::shared_ptr<QVIODevice>& device);
    virtual void didStartScheduler() {}
    virtual void didStopScheduler() {}

    // Seconds a device may stay listed, counted from its snapshot's creation.
    void setDeviceHandlingTimeout(double seconds) { _handlingTimout = seconds; }

    static qv::Value ioRegistryMatchingDictForVendorID(std::int32_t vendorID,
                                                       std::int32_t productID,
                                                       const char* ioService);
    // For an "IOUSBDevice".
    static qv::Value ioRegistryMatchingDictForVendorID(std::int32_t vendorID,
                                                       std::int32_t productID);

    // Subscribes to "DeviceAdded" and "DeviceRemoved" for the dictionary. Devices already
    // attached arrive at devicesAdded() during the call.
    void listenForNotificationsForMatchingDictionary(const qv::Value& matchingDict);
    void listenForNotificationsForVendorID(std::int32_t vendorID, std::int32_t productID,
                                           const char* ioService);
    // Virtual: a receiver that watches every device anyway may forbid it.
    virtual void listenForNotificationsForVendorID(std::int32_t vendorID, std::int32_t productID);

    // The center's deliveries. An empty batch changes nothing.
    void devicesAdded(const QVIODeviceArray& devices) override;
    void devicesRemoved(const QVIODeviceArray& devices) override;

    // nullptr is ignored.
    void addDevice(const std::shared_ptr<QVIODevice>& device);
    // Removes every listed device equal to `device`.
    void removeDevice(const std::shared_ptr<QVIODevice>& device);
    bool hasHandledAllDevices() const { return _addedIODevices.empty(); }
    const QVIODeviceArray& addedIODevices() const { return _addedIODevices; }

    // Whether an application with this bundle identifier runs (through the workspace).
    bool isApplicationRunning(const std::string& bundleIdentifier) const;

    // Starts the one-second examination timer unless it runs already.
    void scheduleDeviceExamination();
    // One examination tick.
    void handleDeviceTimerCallback(qv::Timer& timer);

    // Ends all examination at once: the listed devices are forgotten, the timer stops and a tick
    // that is walking its devices goes no further. No hook or log line follows; the
    // subscriptions are the notification center's business. A later device starts afresh.
    virtual void stopExamination();
    // Moves on at every stopExamination(): work that spans calls out (delegates, modem
    // questioning) compares it with the value it began with to learn that it was stopped.
    std::uint64_t examinationEpoch() const { return _examinationEpoch; }
    bool wasStoppedSince(std::uint64_t epoch) const { return _examinationEpoch != epoch; }

    bool isExaminingForTesting() const { return _ejectionDriver != nullptr; }

  private:
    bool contains(const std::shared_ptr<QVIODevice>& device) const;

    QVIODeviceArray _addedIODevices;
    // The examination timer (the name is historical: every receiver has one).
    std::shared_ptr<qv::Timer> _ejectionDriver;
    double _handlingTimout = kDefaultHandlingTimeout;
    std::uint64_t _examinationEpoch = 0;
    qv::ThreadOwner _threadOwner{"QVDeviceNotificationReceiver"};
};
