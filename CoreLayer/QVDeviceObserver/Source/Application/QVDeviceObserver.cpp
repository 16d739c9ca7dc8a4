#include "Application/QVDeviceObserver.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <set>

#include "Application/PlatformFactory.h"
#include "Application/QVModemStatusListeners.h"
#include "Foundation/Logging.h"
#include "IOKit/Registry.h"
#include "Model/QVDevice.h"
#include "Model/QVSerialInterface.h"
#include "QVGsmKit/GsmAsyncRequests.h"
#include "Recognition/QVDeviceMonitor.h"

namespace {

std::shared_ptr<QVDeviceObserver>& sharedObserver() {
    // Made first, the registry is destroyed last at exit: the shared observer, destroyed before
    // it, still hands its devices back to the registry's feed.
    [[maybe_unused]] static const bool registryFirst = (qv::Registry::shared(), true);
    static std::shared_ptr<QVDeviceObserver> shared;
    return shared;
}

// The observers alive now: a modem answer carries its observer only as an untyped context, and
// one that arrives after the observer is gone must find nobody. Requests carry the context of the
// observer's run rather than the observer, so that answers to a stopped run find nobody either,
// even when the observer has started again meanwhile.
struct LiveObservers {
    std::mutex mutex;
    std::set<const void*> addresses;
    std::map<const void*, QVDeviceObserver*> runs;
    // Run contexts are odd numbers, never reused: never an object's address, never an old run's.
    std::uintptr_t nextRun = 1;
};

// Never destroyed: an observer that a static elsewhere holds may die after this file's statics.
LiveObservers& liveObservers() {
    static auto* live = new LiveObservers;
    return *live;
}

void setAlive(const QVDeviceObserver* observer, bool alive) {
    LiveObservers& live = liveObservers();
    std::lock_guard<std::mutex> lock(live.mutex);
    if (alive) {
        live.addresses.insert(observer);
    } else {
        live.addresses.erase(observer);
    }
}

void* openRunContext(QVDeviceObserver* observer) {
    LiveObservers& live = liveObservers();
    std::lock_guard<std::mutex> lock(live.mutex);
    void* context = reinterpret_cast<void*>(live.nextRun);
    live.nextRun += 2;
    live.runs[context] = observer;
    return context;
}

void closeRunContext(void* context) {
    LiveObservers& live = liveObservers();
    std::lock_guard<std::mutex> lock(live.mutex);
    live.runs.erase(context);
}

// A record without a name prints as nil does.
qv::Value productNameOf(const std::shared_ptr<QVDevice>& device) {
    return device && device->productName() ? qv::Value(*device->productName()) : qv::Value();
}

}  // namespace

std::shared_ptr<QVDeviceObserver> QVDeviceObserver::getInstance() {
    auto& shared = sharedObserver();
    if (!shared) {
        shared = create();
    }
    return shared;
}

void QVDeviceObserver::resetSharedForTesting() {
    sharedObserver().reset();
}

std::shared_ptr<QVDeviceObserver> QVDeviceObserver::create() {
    return initWithDeviceMonitor(QVDeviceMonitor::create());
}

std::shared_ptr<QVDeviceObserver> QVDeviceObserver::initWithDeviceMonitor(
    std::shared_ptr<QVDeviceMonitor> monitor) {
    return std::shared_ptr<QVDeviceObserver>(new QVDeviceObserver(std::move(monitor)));
}

QVDeviceObserver* QVDeviceObserver::liveObserverFromContext(void* context) {
    LiveObservers& live = liveObservers();
    std::lock_guard<std::mutex> lock(live.mutex);
    if (live.addresses.count(context) != 0) {
        return static_cast<QVDeviceObserver*>(context);
    }
    auto run = live.runs.find(context);
    return run != live.runs.end() ? run->second : nullptr;
}

QVDeviceObserver::QVDeviceObserver(std::shared_ptr<QVDeviceMonitor> monitor)
    : _deviceMonitor(std::move(monitor)) {
    setAlive(this, true);
    _modemContext = openRunContext(this);
    if (_deviceMonitor) {
        _deviceMonitor->setDelegate(this);
    }
    setAutorepeatNetInfo(true);
}

QVDeviceObserver::~QVDeviceObserver() {
    setAlive(this, false);
    closeRunContext(_modemContext);
    for (const auto& timer : _requeryTimers) {
        timer->invalidate();
    }
    releasePlatform();
    if (_deviceMonitor && _deviceMonitor->delegate() == this) {
        _deviceMonitor->setDelegate(nullptr);
    }
}

// While started already this only empties the application's list: the monitor, started too,
// announces nothing again. Polling and the registry's feed go on as they were.
void QVDeviceObserver::start() {
    _stopped = false;
    _deviceList.clear();
    // The registry's feed (udev on a real machine) runs while any observer is started.
    if (!_usesPlatform) {
        _usesPlatform = true;
        qv::PlatformFactory::observerStarted();
    }
    if (_deviceMonitor) {
        _deviceMonitor->setDelegate(this);
        _deviceMonitor->start();
    }
}

void QVDeviceObserver::stop() {
    // The delegate goes first, so nobody hears of the devices that were present; the list stays
    // readable until the next start replaces it.
    _stopped = true;
    endModemRun();
    if (_deviceMonitor) {
        _deviceMonitor->setDelegate(nullptr);
        _deviceMonitor->teardown();
    }
    releasePlatform();
}

void QVDeviceObserver::endModemRun() {
    closeRunContext(_modemContext);
    _modemContext = openRunContext(this);
    for (const auto& timer : _requeryTimers) {
        timer->invalidate();
    }
    _requeryTimers.clear();
    QVPrioQueue::getInstance()->removeTask(shared_from_this(), kNetworkQueryPriority);
}

void QVDeviceObserver::releasePlatform() {
    if (_usesPlatform) {
        _usesPlatform = false;
        qv::PlatformFactory::observerStopped();
    }
}

void QVDeviceObserver::setAllowedDevicesRules(qv::Value rules) {
    if (_deviceMonitor) {
        _deviceMonitor->setAllowedDevicesRules(std::move(rules));
    }
}

std::shared_ptr<QVDevice> QVDeviceObserver::device(std::int32_t index) const {
    if (index < 0 || static_cast<std::size_t>(index) >= _deviceList.size()) {
        return nullptr;
    }
    return _deviceList[static_cast<std::size_t>(index)];
}

void QVDeviceObserver::setDefaultDevice(std::int32_t index) {
    // Compared as unsigned numbers, so -1 is refused too: a default can move, never be cleared.
    if (index >= -1 && static_cast<std::uint32_t>(index) < _deviceList.size()) {
        _defaultDevice = index;
    }
}

void QVDeviceObserver::devicesChanged() {
    qv::logRecognition("==> Device list changed");
    update();
}

void QVDeviceObserver::update() {
    auto device = defaultDevice();
    if (!device || _stopped) {
        return;
    }
    auto port = device->portWithCapability("NetworkQuery");
    // Without the port there is nobody to ask; a request on no port would only fail later.
    if (!port) {
        qv::logRecognition("Default device '%@' has no port for network queries: no modem request",
                           productNameOf(device));
        return;
    }
    const std::string portName = port->name();
    const int deviceId = device->qvDeviceId();
    startGroundInitEx(deviceId, portName.c_str(), kGroundInitScript, groundInitListener,
                      _modemContext);
    if (getTheDeviceInfo(deviceId, portName.c_str(), getDeviceInfoListener, _modemContext) == 0) {
        qv::logRecognition("Fatal error: Start Get OGTC status error(enabled or disabled)...");
    }
}

void QVDeviceObserver::fireStartGetNetInfo() {
    // The re-query timer of a poll that was under way at the stop.
    if (_stopped) {
        return;
    }
    setAutorepeatNetInfo(true);
    QVPrioQueue::getInstance()->addTask(shared_from_this(), kNetworkQueryPriority);
}

void QVDeviceObserver::executeInBackground(QVPrioQueue& queue) {
    (void)queue;
    auto device = defaultDevice();
    if (!device || _stopped) {
        return;
    }
    auto port = device->portWithCapability("NetworkQuery");
    if (!port) {
        qv::logRecognition("Default device '%@' has no port for network queries: no modem request",
                           productNameOf(device));
        return;
    }
    const std::string portName = port->name();
    startGetNetworkInfoEx(device->qvDeviceId(), portName.c_str(), gsmGetNetworkInfoListener,
                          _modemContext);
}

void QVDeviceObserver::scheduleNetworkRequery() {
    std::weak_ptr<QVDeviceObserver> weak = weak_from_this();
    std::erase_if(_requeryTimers, [](const auto& timer) { return !timer->isValid(); });
    _requeryTimers.push_back(
        qv::RunLoop::current().scheduleTimer(kNetworkQueryInterval, false, [weak](qv::Timer&) {
            if (auto strong = weak.lock()) {
                strong->fireStartGetNetInfo();
            }
        }));
}

void QVDeviceObserver::networkInfoDidUpdate(const qv::Value& info) {
    if (_stopped) {
        return;
    }
    _netInfo = info;
    qv::logRecognition("==> Network Info did update");
    if (_delegate) {
        _delegate->noteNetworkInfoDidUpdate(_netInfo, defaultDevice());
    }
}

void QVDeviceObserver::deviceInfoDidUpdate(const qv::Value& info) {
    // An answer that is not a dictionary counts as none rather than raising in the copy.
    _deviceInfo = info.isDictionary() ? info : qv::Value(qv::Dictionary());
}

void QVDeviceObserver::deviceDidRecognize() {
    if (_delegate && !_stopped) {
        _delegate->noteDeviceDidRecognize(defaultDevice());
    }
}

void QVDeviceObserver::deviceRecognitionError(int code) {
    if (_delegate && !_stopped) {
        _delegate->noteDeviceRecognitionError(code);
    }
}

void QVDeviceObserver::noteDeviceBecameAvailable(const std::shared_ptr<QVDevice>& device) {
    // "VQ" and the missing blank are what this line has always looked like.
    qv::logRecognition("VQDeviceObserver.noteDeviceBecameAvailable:Device '%@' added...",
                       productNameOf(device));
    _deviceList.push_back(device);
    if (_delegate) {
        _delegate->noteDeviceBecameAvailable(device);
    }
}

void QVDeviceObserver::noteDeviceBecameMissing(const std::shared_ptr<QVDevice>& device) {
    qv::logRecognition("VQDeviceObserver.noteDeviceBecameMissing: Device '%@' removed...",
                       productNameOf(device));
    if (_delegate) {
        _delegate->noteDeviceBecameMissing(device);
    }
    // removeObject: takes every equal entry.
    std::erase_if(_deviceList, [&](const std::shared_ptr<QVDevice>& listed) {
        return listed == device || (listed && device && listed->isEqual(*device));
    });
    deviceInfoDidUpdate(qv::Value());
}

void QVDeviceObserver::noteDeviceIdentificationStarted() {
    if (_delegate) {
        _delegate->noteDeviceIdentificationStarted();
    }
}

void QVDeviceObserver::noteDeviceIdentificationStopped() {
    if (_delegate) {
        _delegate->noteDeviceIdentificationStopped();
    }
}

// The application hears nothing of devices that were rejected or could not be identified.
void QVDeviceObserver::noteStartedIdentifyingDevice(const std::shared_ptr<QVDevice>& device) {
    (void)device;
}

void QVDeviceObserver::noteCouldNotIdentifyDevice(const std::shared_ptr<QVDevice>& device) {
    (void)device;
}
