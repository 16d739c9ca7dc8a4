// QVDeviceNotificationCenter: the framework's one contact with the registry's matching
// notifications. Observers subscribe by notification name ("DeviceAdded", "DeviceRemoved") and
// match information (a service name or a matching dictionary); each distinct subscription key
// ("DeviceAdded_4817_7957") arms one registry notification, and every batch of matched or
// terminated services reaches all observers of the key as one array of snapshots.
//
// Owned by the thread that subscribes first: the notification port's run-loop source goes to that
// thread's run loop, and every delivery happens there. Observers are retained until
// removeAllNotifications() or until their own subscriptions end with
// removeAllNotificationsOfObserver(); removeObserver() removes nothing.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Foundation/Object.h"
#include "Foundation/Value.h"
#include "IOKit/IOKitLib.h"
#include "QVDeviceNotificationObserver.h"
#include "QVIODevice.h"

inline constexpr const char* kQVDeviceAddedNotification = "DeviceAdded";
inline constexpr const char* kQVDeviceRemovedNotification = "DeviceRemoved";

class QVDeviceNotificationCenter : public qv::Object {
  public:
    // The shared center, created on first use; it lives for the process.
    static std::shared_ptr<QVDeviceNotificationCenter> defaultDeviceNotificationCenter();
    // A fresh shared center for the next story (tests, the simulator); the old one is dropped
    // with its subscriptions.
    static void resetSharedForTesting();

    QVDeviceNotificationCenter() = default;
    QVDeviceNotificationCenter(const QVDeviceNotificationCenter&) = delete;
    QVDeviceNotificationCenter& operator=(const QVDeviceNotificationCenter&) = delete;

    // Subscribes `observer` so that `selector` receives each batch for `name` and `matchInfo`
    // (a string: a service name; a dictionary: a matching dictionary). A new "DeviceAdded"
    // observer is called at once with the devices present now (possibly none).
    // Raises qv::Exception: "NSException" for nil or malformed match information or an unknown
    // name, "NSInternalInconsistencyException" when the registry refuses the subscription.
    void addObserver(std::shared_ptr<QVDeviceNotificationObserver> observer,
                     QVDeviceNotificationSelector selector, const std::string& name,
                     const qv::Value& matchInfo);
    // Does nothing: observers stay subscribed until removeAllNotifications().
    void removeObserver(const std::shared_ptr<QVDeviceNotificationObserver>& observer,
                        const std::string& name, const qv::Value& matchInfo);
    // Ends every notification and forgets every observer; safe during a delivery (observers not
    // yet called in that batch are not called).
    void removeAllNotifications();
    // Ends the subscriptions of one observer, so that several monitors (and an enabler) can come
    // and go independently: a key left without observers is disarmed, and once no subscription is
    // left at all everything goes as with removeAllNotifications(). Safe during a delivery.
    void removeAllNotificationsOfObserver(const QVDeviceNotificationObserver* observer);
    void clearNotificationsDict();

    // "<idVendor>" and "_<idProduct>", each only when present: "4817_7957", "_7957" or "".
    static std::string notifSuffixForMatchingDict(const qv::Value& matchingDict);
    // Drains `iterator` (which re-arms a notification) into snapshots, in its order.
    static QVIODeviceArray ioDevicesFromIterator(io_iterator_t iterator);

    // One batch for a subscription key. A key without observers leaves the iterator undrained.
    void sendDeviceNotification(const std::string& key, io_iterator_t iterator);

    std::size_t observerCountForTesting(const std::string& key) const;
    bool hasNotificationPortForTesting() const { return _myPort != nullptr; }

  private:
    struct ObserverEntry {
        std::shared_ptr<QVDeviceNotificationObserver> observer;
        QVDeviceNotificationSelector selector;
    };
    using ObserverList = std::vector<std::shared_ptr<const ObserverEntry>>;

    void notifyObserver(const ObserverEntry& entry, const QVIODeviceArray& devices);
    void createNotificationPort();
    bool isStillRegistered(const std::string& key, const ObserverEntry* entry) const;

    std::map<std::string, ObserverList> _notificationsDict;
    IONotificationPortRef _myPort = nullptr;
    qv::CFRunLoopSourceRef _notificationRunLoopSource;
    // The armed notification of each key, by its iterator: given back when the port is gone, or
    // released (which disarms it) when the key's last observer leaves.
    std::map<std::string, io_iterator_t> _armedIterators;
};

// The registry's callbacks; `refCon` is the subscription key given when the notification was
// armed.
extern "C" void ioDeviceAddedMatchingCallback(void* refCon, io_iterator_t iterator);
extern "C" void ioDeviceRemovedMatchingCallback(void* refCon, io_iterator_t iterator);
