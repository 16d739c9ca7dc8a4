// QVDeviceObserver: the application's entry point. Owns a device monitor and is its delegate,
// keeps the available devices in arrival order, lets the application choose a default device,
// and drives the modem library for it: one initialisation with device information, then network
// information queried through the priority queue every five seconds after each answer.
//
// Lives on the application's run-loop thread; no locks. The modem library's answers arrive on
// that thread too (the library delivers them on the run loop of the requesting thread).
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "Application/QVDeviceObserverDelegate.h"
#include "Application/QVPrioQueue.h"
#include "Foundation/Value.h"
#include "Recognition/QVDeviceEventCallbacks.h"
#include "RunLoop/RunLoop.h"

class QVDevice;
class QVDeviceMonitor;

class QVDeviceObserver : public QVDeviceEventCallbacks,
                         public QVPrioQueueTask,
                         public std::enable_shared_from_this<QVDeviceObserver> {
  public:
    static constexpr int kNetworkQueryPriority = 2;
    static constexpr double kNetworkQueryInterval = 5.0;
    static constexpr const char* kGroundInitScript = "ATE1;V1\r\n[L2N]AT&F\r\n[L2N]AT+CMEE=1\r\n";

    static std::shared_ptr<QVDeviceObserver> getInstance();
    static void resetSharedForTesting();
    // init: around a new plain QVDeviceMonitor.
    static std::shared_ptr<QVDeviceObserver> create();
    static std::shared_ptr<QVDeviceObserver> initWithDeviceMonitor(
        std::shared_ptr<QVDeviceMonitor> monitor);
    ~QVDeviceObserver() override;
    // The observer a modem-library context names: the observer itself, or the context of one of
    // its runs (what its requests carry). nullptr once that observer is destroyed, and for the
    // context of a run that has been stopped.
    static QVDeviceObserver* liveObserverFromContext(void* context);
    // The context the requests of the current run carry.
    void* modemContext() const { return _modemContext; }

    void start();
    void stop();

    void setAllowedDevicesRules(qv::Value rules);
    void setDelegate(QVDeviceObserverDelegate* delegate) { _delegate = delegate; }
    QVDeviceObserverDelegate* delegate() const { return _delegate; }

    std::shared_ptr<QVDevice> device(std::int32_t index) const;
    std::shared_ptr<QVDevice> defaultDevice() const { return device(_defaultDevice); }
    void setDefaultDevice(std::int32_t index);
    std::int32_t defaultDeviceIndex() const { return _defaultDevice; }
    const std::vector<std::shared_ptr<QVDevice>>& deviceList() const { return _deviceList; }

    bool autorepeatNetInfo() const { return _autorepeatNetInfo; }
    void setAutorepeatNetInfo(bool autorepeat) { _autorepeatNetInfo = autorepeat; }
    const qv::Value& getNetInfo() const { return _netInfo; }
    const qv::Value& getDeviceInfo() const { return _deviceInfo; }

    void devicesChanged();
    void update();
    void fireStartGetNetInfo();
    void fireGetNetInfo() { fireStartGetNetInfo(); }
    void executeInBackground(QVPrioQueue& queue) override;
    void networkInfoDidUpdate(const qv::Value& info);
    // The one-shot timer that asks again kNetworkQueryInterval seconds after an answer; a stop
    // cancels it.
    void scheduleNetworkRequery();
    void deviceInfoDidUpdate(const qv::Value& info);
    void deviceDidRecognize();
    void deviceRecognitionError(int code);

    const std::shared_ptr<QVDeviceMonitor>& deviceMonitor() const { return _deviceMonitor; }

    // QVDeviceEventCallbacks
    void noteDeviceBecameAvailable(const std::shared_ptr<QVDevice>& device) override;
    void noteDeviceBecameMissing(const std::shared_ptr<QVDevice>& device) override;
    void noteDeviceIdentificationStarted() override;
    void noteDeviceIdentificationStopped() override;
    void noteStartedIdentifyingDevice(const std::shared_ptr<QVDevice>& device) override;
    void noteCouldNotIdentifyDevice(const std::shared_ptr<QVDevice>& device) override;

  protected:
    explicit QVDeviceObserver(std::shared_ptr<QVDeviceMonitor> monitor);

  private:
    void releasePlatform();
    // Ends the current run's modem work: its answers find nobody, its re-query timers are
    // cancelled and its queued network query is taken out of the queue.
    void endModemRun();

    std::int32_t _defaultDevice = -1;
    qv::Value _netInfo;
    qv::Value _deviceInfo;
    QVDeviceObserverDelegate* _delegate = nullptr;
    std::vector<std::shared_ptr<QVDevice>> _deviceList;
    bool _autorepeatNetInfo = true;
    // Set by stop, cleared by start: a stopped observer starts no modem request and passes no
    // late modem answer on, so polling that was under way ends with the stop.
    bool _stopped = false;
    // The modem library's context for this run's requests; a new one after every stop.
    void* _modemContext = nullptr;
    std::vector<std::shared_ptr<qv::Timer>> _requeryTimers;
    std::shared_ptr<QVDeviceMonitor> _deviceMonitor;
    bool _usesPlatform = false;  // counted among the registry's users (PlatformFactory)
};
