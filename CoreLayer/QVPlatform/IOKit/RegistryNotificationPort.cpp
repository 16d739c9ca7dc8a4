#include "RegistryNotificationPort.h"

#include <algorithm>

namespace qv {

IONotificationPort* NotificationPortList::create(std::function<void(std::uint64_t)> deliver) {
    auto port = std::make_unique<IONotificationPort>();
    port->id = nextPortId_++;
    std::uint64_t id = port->id;
    port->source =
        std::make_shared<RunLoopSource>([deliver = std::move(deliver), id]() { deliver(id); });
    ports_.push_back(std::move(port));
    return ports_.back().get();
}

std::unique_ptr<IONotificationPort> NotificationPortList::take(IONotificationPort* port) {
    auto it =
        std::find_if(ports_.begin(), ports_.end(), [&](const auto& p) { return p.get() == port; });
    if (it == ports_.end()) {
        return nullptr;
    }
    std::unique_ptr<IONotificationPort> owned = std::move(*it);
    ports_.erase(it);
    return owned;
}

bool NotificationPortList::contains(const IONotificationPort* port) const {
    return port != nullptr && std::any_of(ports_.begin(), ports_.end(),
                                          [&](const auto& p) { return p.get() == port; });
}

IONotificationPort* NotificationPortList::byId(std::uint64_t id) const {
    // Ids grow with creation and the list keeps creation order.
    auto it = std::lower_bound(ports_.begin(), ports_.end(), id,
                               [](const auto& p, std::uint64_t wanted) { return p->id < wanted; });
    return (it != ports_.end() && (*it)->id == id) ? it->get() : nullptr;
}

namespace {

// Sequence numbers grow along a port's list: the place of one is found by bisection.
template <typename List>
auto placeOfSequence(List& list, std::uint64_t sequence) {
    return std::lower_bound(list.begin(), list.end(), sequence,
                            [](const auto& n, std::uint64_t s) { return n->sequence < s; });
}

}  // namespace

qvRegistryNotification* NotificationPortList::append(
    IONotificationPort* port, std::unique_ptr<qvRegistryNotification> notification) {
    notification->sequence = nextSequence_++;
    notification->port = port;
    port->notifications.push_back(std::move(notification));
    return port->notifications.back().get();
}

void NotificationPortList::erase(qvRegistryNotification* notification) {
    IONotificationPort* port = notification->port;
    if (!contains(port)) {
        return;
    }
    port->pendingSequences.erase(notification->sequence);
    auto& list = port->notifications;
    auto it = placeOfSequence(list, notification->sequence);
    if (it != list.end() && it->get() == notification) {
        list.erase(it);
    }
}

}  // namespace qv

qvRegistryNotification* IONotificationPort::notificationWithSequence(std::uint64_t sequence) const {
    auto it = qv::placeOfSequence(notifications, sequence);
    return (it != notifications.end() && (*it)->sequence == sequence) ? it->get() : nullptr;
}
