// The registry's notification ports and the matching notifications armed on them.
//
// A port owns its notifications in the order they were armed; each notification also carries a
// registry-wide sequence number, so that ports ordered by id and notifications ordered by that
// number give the same order as walking every port's list, which is the order clients are told
// in. qv::NotificationPortList keeps the ports in creation order.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <vector>

#include "IOKitTypes.h"
#include "RunLoop/RunLoop.h"

struct qvRegistryNotification;

struct IONotificationPort {
    std::uint64_t id = 0;
    std::shared_ptr<qv::RunLoopSource> source;
    std::vector<std::unique_ptr<qvRegistryNotification>> notifications;
    // Sequence numbers of the notifications with something to deliver: a port can carry hundreds
    // of notifications (one per known model), and a delivery should not have to look at them all.
    std::set<std::uint64_t> pendingSequences;

    // The notification with that sequence number; nullptr when it has ended.
    qvRegistryNotification* notificationWithSequence(std::uint64_t sequence) const;
};

// One armed matching notification of a port.
struct qvRegistryNotification {
    bool matchedType = true;  // matched, or terminated
    qv::Value matching;
    void (*callback)(void* refCon, io_iterator_t iterator) = nullptr;
    void* refCon = nullptr;
    io_iterator_t iterator = IO_OBJECT_NULL;
    bool pending = false;
    std::uint64_t sequence = 0;
    IONotificationPort* port = nullptr;
};

namespace qv {

class NotificationPortList {
  public:
    // A new port whose run-loop source calls `deliver` with the port's id.
    IONotificationPort* create(std::function<void(std::uint64_t portId)> deliver);
    // Takes the port out of the list (nullptr when it is not one of ours).
    std::unique_ptr<IONotificationPort> take(IONotificationPort* port);
    bool contains(const IONotificationPort* port) const;
    IONotificationPort* byId(std::uint64_t id) const;
    // Appends an armed notification to its port, numbering it.
    qvRegistryNotification* append(IONotificationPort* port,
                                   std::unique_ptr<qvRegistryNotification> notification);
    // Ends one notification of a live port; nothing when the port is gone already.
    void erase(qvRegistryNotification* notification);

  private:
    std::vector<std::unique_ptr<IONotificationPort>> ports_;
    std::uint64_t nextPortId_ = 1;
    std::uint64_t nextSequence_ = 1;
};

}  // namespace qv
