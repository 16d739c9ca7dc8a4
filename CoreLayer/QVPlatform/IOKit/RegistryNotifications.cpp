// The registry's notification half: ports, arming, queueing what a feeder change causes, and
// delivery through each port's run-loop source.
#include <algorithm>

#include "Registry.h"
#include "RegistryObject.h"

namespace qv {

IONotificationPort* Registry::createPort() {
    owner_.check(__func__);
    // The source may outlive the port and the registry (whoever added it to a run loop holds
    // it): it finds its port again by id, and only while this registry is alive.
    std::weak_ptr<int> alive = lifetime_;
    return ports_.create([this, alive](std::uint64_t id) {
        if (alive.lock()) {
            deliver(id);
        }
    });
}

bool Registry::isPort(IONotificationPort* port) const {
    owner_.check(__func__);
    return ports_.contains(port);
}

void Registry::destroyPort(IONotificationPort* port) {
    owner_.check(__func__);
    std::unique_ptr<IONotificationPort> owned = ports_.take(port);
    if (!owned) {
        return;
    }
    // The notifications end with the port; their iterators stay valid objects until released.
    for (auto& notification : owned->notifications) {
        index_.removeNotification(notification.get());
        if (Object* iterator = find(notification->iterator)) {
            iterator->notification = nullptr;
        }
    }
}

std::shared_ptr<RunLoopSource> Registry::portSource(IONotificationPort* port) const {
    owner_.check(__func__);
    return isPort(port) ? port->source : nullptr;
}

kern_return_t Registry::addNotification(IONotificationPort* port, const std::string& type,
                                        const Value& matching, MatchingCallback callback,
                                        void* refCon, io_iterator_t* iterator) {
    owner_.check(__func__);
    if (!isPort(port) || iterator == nullptr || callback == nullptr || !matching.isDictionary()) {
        return kIOReturnBadArgument;
    }
    bool matchedType = type == kIOMatchedNotification || type == kIOFirstMatchNotification;
    if (!matchedType && type != kIOTerminatedNotification) {
        return kIOReturnUnsupported;
    }
    auto notification = std::make_unique<qvRegistryNotification>();
    notification->matchedType = matchedType;
    notification->matching = matching;
    notification->callback = callback;
    notification->refCon = refCon;
    std::vector<io_object_t> existing;
    if (matchedType) {
        existing = matchingEntries(matching);
    }
    notification->iterator = createIterator(existing);
    find(notification->iterator)->notification = notification.get();
    *iterator = notification->iterator;
    index_.addNotification(ports_.append(port, std::move(notification)));
    return kIOReturnSuccess;
}

void Registry::reportToNotifications(io_registry_entry_t entry, bool matched) {
    const Object* object = find(entry);
    if (object == nullptr || object->kind != Object::Kind::Entry) {
        return;
    }
    std::vector<qvRegistryNotification*> candidates;
    index_.notificationCandidates(object->className, object->name, object->properties, candidates);
    // Told in the order of a walk over every port and its notifications.
    std::sort(candidates.begin(), candidates.end(), [](const auto* a, const auto* b) {
        return a->port->id != b->port->id ? a->port->id < b->port->id : a->sequence < b->sequence;
    });
    IONotificationPort* port = nullptr;
    bool signal = false;
    for (qvRegistryNotification* notification : candidates) {
        if (notification->port != port) {
            if (signal) {
                port->source->signal();
            }
            port = notification->port;
            signal = false;
        }
        if (notification->matchedType == matched && matches(entry, notification->matching)) {
            queueForNotification(*notification, entry, signal);
        }
    }
    if (signal) {
        port->source->signal();
    }
}

void Registry::queueForNotification(qvRegistryNotification& notification, io_registry_entry_t entry,
                                    bool& signal) {
    Object* iterator = find(notification.iterator);
    if (iterator == nullptr) {
        return;
    }
    // Armed when the client drained everything it was given before this event.
    bool armed = iterator->position >= iterator->items.size();
    if (armed) {
        // Forget what was consumed so the iterator does not grow for ever.
        for (io_object_t item : iterator->items) {
            release(item);
        }
        iterator->items.clear();
        iterator->position = 0;
    }
    iterator->items.push_back(entry);
    retain(entry);
    if (armed && !notification.pending) {
        notification.pending = true;
        notification.port->pendingSequences.insert(notification.sequence);
        signal = true;
    }
}

void Registry::deliver(std::uint64_t portId) {
    owner_.check(__func__);
    IONotificationPort* port = ports_.byId(portId);
    if (port == nullptr) {
        return;
    }
    // In arming order, from the pending ones only. Callbacks may arm, end or make pending other
    // notifications, or destroy the port: re-check the port and look each one up afresh. One made
    // pending behind the walk waits for the next delivery, which its signal has asked for.
    std::uint64_t after = 0;
    while (isPort(port)) {
        auto next = port->pendingSequences.upper_bound(after);
        if (next == port->pendingSequences.end()) {
            break;
        }
        after = *next;
        port->pendingSequences.erase(next);
        qvRegistryNotification* notification = port->notificationWithSequence(after);
        if (notification == nullptr || !notification->pending) {
            continue;
        }
        notification->pending = false;
        const Object* iterator = find(notification->iterator);
        if (iterator == nullptr || iterator->position >= iterator->items.size()) {
            continue;
        }
        io_iterator_t handle = notification->iterator;
        notification->callback(notification->refCon, handle);
        // What the client consumed is no longer held once it has drained everything.
        Object* drained = find(handle);
        if (drained != nullptr && drained->position >= drained->items.size()) {
            std::vector<io_object_t> items = std::move(drained->items);
            drained->items.clear();
            drained->position = 0;
            for (io_object_t item : items) {
                release(item);
            }
        }
    }
}

}  // namespace qv
