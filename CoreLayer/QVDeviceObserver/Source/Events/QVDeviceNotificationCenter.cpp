#include "QVDeviceNotificationCenter.h"

#include <algorithm>
#include <set>

#include "Foundation/Exception.h"
#include "Foundation/Format.h"
#include "Foundation/Logging.h"
#include "IOKit/Registry.h"
#include "RunLoop/RunLoop.h"

namespace {

// The registry hands a key back to the callback as its reference constant, so every key keeps
// one address for the life of the process.
const std::string* internedKey(const std::string& key) {
    static std::set<std::string> keys;
    return &*keys.insert(key).first;
}

}  // namespace

namespace {

std::shared_ptr<QVDeviceNotificationCenter>& sharedCenter() {
    // Made first, the registry is destroyed last at exit: receivers the center still holds then
    // (a serial port enabler) hand their use of the registry's feed back while it exists.
    [[maybe_unused]] static const bool registryFirst = (qv::Registry::shared(), true);
    static std::shared_ptr<QVDeviceNotificationCenter> shared =
        std::make_shared<QVDeviceNotificationCenter>();
    return shared;
}

}  // namespace

std::shared_ptr<QVDeviceNotificationCenter>
QVDeviceNotificationCenter::defaultDeviceNotificationCenter() {
    return sharedCenter();
}

void QVDeviceNotificationCenter::resetSharedForTesting() {
    sharedCenter() = std::make_shared<QVDeviceNotificationCenter>();
}

void QVDeviceNotificationCenter::createNotificationPort() {
    _myPort = IONotificationPortCreate(kIOMasterPortDefault);
    _notificationRunLoopSource = IONotificationPortGetRunLoopSource(_myPort);
    qv::CFRunLoopAddSource(qv::CFRunLoopGetCurrent(), _notificationRunLoopSource,
                           qv::kCFRunLoopCommonModes);
}

void QVDeviceNotificationCenter::addObserver(std::shared_ptr<QVDeviceNotificationObserver> observer,
                                             QVDeviceNotificationSelector selector,
                                             const std::string& name, const qv::Value& matchInfo) {
    if (matchInfo.isNil()) {
        throw qv::Exception(qv::kNSException, "Invalid match info");
    }
    qv::Value matching;
    std::string suffix;
    if (const std::string* serviceName = matchInfo.asString()) {
        matching = IOServiceNameMatching(serviceName->c_str());
        suffix = *serviceName;
    } else if (matchInfo.isDictionary()) {
        matching = matchInfo;
        suffix = notifSuffixForMatchingDict(matchInfo);
    } else {
        throw qv::Exception(qv::kNSException, "Invalid format of match info");
    }

    if (_myPort == nullptr) {
        createNotificationPort();
    }

    const char* notificationType = nullptr;
    IOServiceMatchingCallback callback = nullptr;
    if (name == kQVDeviceAddedNotification) {
        notificationType = kIOMatchedNotification;
        callback = ioDeviceAddedMatchingCallback;
    } else if (name == kQVDeviceRemovedNotification) {
        notificationType = kIOTerminatedNotification;
        callback = ioDeviceRemovedMatchingCallback;
    } else {
        throw qv::Exception(qv::kNSException, "Invalid notification name");
    }

    const std::string* key = internedKey(qv::format("%@_%@", name, suffix));

    io_iterator_t iterator = IO_OBJECT_NULL;
    bool oneOffLookup = false;
    auto found = _notificationsDict.find(*key);
    if (found == _notificationsDict.end()) {
        void* refCon = const_cast<std::string*>(key);
        if (IOServiceAddMatchingNotification(_myPort, notificationType, matching, callback, refCon,
                                             &iterator) != KERN_SUCCESS) {
            throw qv::Exception(qv::kNSInternalInconsistencyException,
                                "IOKit Error. Add matching notification failed");
        }
        _armedIterators[*key] = iterator;
    } else {
        // The key is armed already: the newcomer learns what is present by a plain lookup.
        if (IOServiceGetMatchingServices(kIOMasterPortDefault, matching, &iterator) !=
            KERN_SUCCESS) {
            throw qv::Exception(qv::kNSInternalInconsistencyException,
                                "IOKit Error. IOServiceGetMatchingServices failed");
        }
        oneOffLookup = true;
    }

    auto entry = std::make_shared<const ObserverEntry>(ObserverEntry{observer, selector});
    _notificationsDict[*key].push_back(entry);

    // Draining arms a new notification; what a removal subscription drains is not news.
    QVIODeviceArray present = ioDevicesFromIterator(iterator);
    if (oneOffLookup) {
        IOObjectRelease(iterator);
    }
    if (name == kQVDeviceAddedNotification) {
        notifyObserver(*entry, present);
    }
}

void QVDeviceNotificationCenter::removeObserver(
    const std::shared_ptr<QVDeviceNotificationObserver>&, const std::string&, const qv::Value&) {
    // Deliberately nothing: receivers rely on staying subscribed until the center is torn down.
}

void QVDeviceNotificationCenter::removeAllNotifications() {
    qv::logRecognition("QVDeviceNotificationCenter: remove all notifications");
    if (_notificationRunLoopSource) {
        qv::CFRunLoopRemoveSource(qv::CFRunLoopGetCurrent(), _notificationRunLoopSource,
                                  qv::kCFRunLoopCommonModes);
    }
    if (_myPort != nullptr) {
        IONotificationPortDestroy(_myPort);
        _myPort = nullptr;
    }
    // With the port gone the notifications are over; their iterators are only objects now.
    for (const auto& [key, iterator] : _armedIterators) {
        IOObjectRelease(iterator);
    }
    _armedIterators.clear();
    clearNotificationsDict();
}

void QVDeviceNotificationCenter::removeAllNotificationsOfObserver(
    const QVDeviceNotificationObserver* observer) {
    for (auto key = _notificationsDict.begin(); key != _notificationsDict.end();) {
        std::erase_if(key->second,
                      [observer](const auto& entry) { return entry->observer.get() == observer; });
        if (!key->second.empty()) {
            ++key;
            continue;
        }
        // Nobody listens under this key any more: releasing its iterator ends the notification.
        auto armed = _armedIterators.find(key->first);
        if (armed != _armedIterators.end()) {
            IOObjectRelease(armed->second);
            _armedIterators.erase(armed);
        }
        key = _notificationsDict.erase(key);
    }
    if (_notificationsDict.empty()) {
        removeAllNotifications();
    }
}

void QVDeviceNotificationCenter::clearNotificationsDict() {
    _notificationsDict.clear();
}

std::string QVDeviceNotificationCenter::notifSuffixForMatchingDict(const qv::Value& matchingDict) {
    std::string suffix;
    const qv::Value& vendor = matchingDict["idVendor"];
    if (vendor.isPresent()) {
        suffix += qv::format("%@", vendor);
    }
    const qv::Value& product = matchingDict["idProduct"];
    if (product.isPresent()) {
        suffix += qv::format("_%@", product);
    }
    return suffix;
}

QVIODeviceArray QVDeviceNotificationCenter::ioDevicesFromIterator(io_iterator_t iterator) {
    QVIODeviceArray devices;
    while (io_service_t service = IOIteratorNext(iterator)) {
        devices.push_back(QVIODevice::deviceWithServiceEntry(service));
        IOObjectRelease(service);
    }
    return devices;
}

bool QVDeviceNotificationCenter::isStillRegistered(const std::string& key,
                                                   const ObserverEntry* entry) const {
    auto found = _notificationsDict.find(key);
    return found != _notificationsDict.end() &&
           std::any_of(found->second.begin(), found->second.end(),
                       [entry](const auto& e) { return e.get() == entry; });
}

void QVDeviceNotificationCenter::sendDeviceNotification(const std::string& key,
                                                        io_iterator_t iterator) {
    auto found = _notificationsDict.find(key);
    if (found == _notificationsDict.end()) {
        return;
    }
    QVIODeviceArray devices = ioDevicesFromIterator(iterator);
    // Observers may tear the center down while being called: walk a copy, and skip whoever was
    // removed meanwhile.
    ObserverList observers = found->second;
    for (const auto& entry : observers) {
        if (isStillRegistered(key, entry.get())) {
            notifyObserver(*entry, devices);
        }
    }
}

void QVDeviceNotificationCenter::notifyObserver(const ObserverEntry& entry,
                                                const QVIODeviceArray& devices) {
    if (entry.observer && entry.selector != nullptr) {
        ((*entry.observer).*entry.selector)(devices);
    }
}

std::size_t QVDeviceNotificationCenter::observerCountForTesting(const std::string& key) const {
    auto found = _notificationsDict.find(key);
    return found == _notificationsDict.end() ? 0 : found->second.size();
}

extern "C" void ioDeviceAddedMatchingCallback(void* refCon, io_iterator_t iterator) {
    qv::logRecognition("Device Added Notification from IOKit");
    if (refCon != nullptr) {
        QVDeviceNotificationCenter::defaultDeviceNotificationCenter()->sendDeviceNotification(
            *static_cast<const std::string*>(refCon), iterator);
    }
}

extern "C" void ioDeviceRemovedMatchingCallback(void* refCon, io_iterator_t iterator) {
    qv::logRecognition("Device Removed Notification from IOKit");
    if (refCon != nullptr) {
        QVDeviceNotificationCenter::defaultDeviceNotificationCenter()->sendDeviceNotification(
            *static_cast<const std::string*>(refCon), iterator);
    }
}
