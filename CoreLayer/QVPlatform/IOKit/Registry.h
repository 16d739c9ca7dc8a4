// qv::Registry: the one in-memory device registry behind the I/O Kit functions (IOKitLib.h).
// A tree of entries in the IOService plane, each with a handle, a name, a class name and ordered
// properties, plus the objects the functions hand out (iterators) and the notification ports.
//
// Feeders (the scripted timeline, the udev feeder) only add, change and remove entries; matching
// notifications that a change causes are queued and delivered through each notification port's
// run-loop source, so no callback ever runs from inside a feeder call.
//
// Handles are reference-counted as on the original platform: the tree holds one reference to each
// attached entry; every handle a function returns carries one more for the caller. A removed
// (terminated) entry leaves the tree but stays readable while someone holds a reference.
// Handles are never reused, so a stale handle answers "no such object".
//
// Owned by one thread: the one that runs the notification ports' run loop. Builds without NDEBUG
// abort when another thread calls in while the first one to use the registry still runs
// (qv::ThreadOwner).
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "Foundation/ThreadOwner.h"
#include "IOKitTypes.h"
#include "RegistryMatchingIndex.h"
#include "RegistryNotificationPort.h"
#include "RunLoop/RunLoop.h"

namespace qv {

class Registry {
  public:
    using MatchingCallback = void (*)(void* refCon, io_iterator_t iterator);

    Registry();
    ~Registry();
    Registry(const Registry&) = delete;
    Registry& operator=(const Registry&) = delete;

    // The process's registry.
    static Registry& shared();
    // Replaces the process's registry with an empty one (tests, the simulator). Handles and ports
    // of the old one become invalid and answer errors.
    static void resetShared();

    // ---- feeders ----
    io_registry_entry_t root() const { return rootHandle_; }
    // Adds an entry below `parent` (IO_OBJECT_NULL: below the root). The name defaults to the
    // class. Returns IO_OBJECT_NULL when the parent does not exist or is no longer attached. The
    // returned handle is the tree's; the feeder does not release it. With `before` (a child of
    // `parent`) the entry stands in front of that sibling rather than last.
    io_registry_entry_t addEntry(io_registry_entry_t parent, const std::string& className,
                                 const std::string& name, Value properties,
                                 io_registry_entry_t before = IO_OBJECT_NULL);
    // Merges `properties` (a dictionary) into the entry's properties. A nil value removes a key.
    bool setProperties(io_registry_entry_t entry, const Value& properties);
    // Terminates the entry and everything below it (children first in the notifications' view:
    // the entry's own termination is reported before its descendants', as a tree is walked).
    bool removeEntry(io_registry_entry_t entry);
    bool isAttached(io_registry_entry_t entry) const;

    // Declares a class and its superclass, for matching by class ("IOCDMedia" is an "IOMedia").
    // The usual I/O Kit classes are known from the start.
    void registerClass(const std::string& className, const std::string& superclassName);
    bool classConformsTo(const std::string& className, const std::string& ancestor) const;

    // ---- what the I/O Kit functions use ----
    bool isEntry(io_object_t object) const;
    bool isIterator(io_object_t object) const;
    const std::string* entryName(io_registry_entry_t entry) const;
    const std::string* entryClass(io_registry_entry_t entry) const;
    const Value* entryProperties(io_registry_entry_t entry) const;
    io_registry_entry_t entryParent(io_registry_entry_t entry) const;
    std::vector<io_registry_entry_t> entryChildren(io_registry_entry_t entry) const;
    // All attached descendants, depth first, in child order (not the entry itself).
    std::vector<io_registry_entry_t> entryDescendants(io_registry_entry_t entry) const;
    std::optional<std::string> entryPath(io_registry_entry_t entry) const;
    // A number that changes whenever anything a reader of the entry can see changes: its own
    // properties, any entry of its subtree (added, removed, properties), or the properties of an
    // ancestor. 0 for a handle that is not an entry. Numbers are never reused in the process, not
    // even by a later registry, so an unchanged number means an unchanged view.
    std::uint64_t changeStamp(io_registry_entry_t entry) const;
    bool matches(io_registry_entry_t entry, const Value& matching) const;
    std::vector<io_registry_entry_t> matchingEntries(const Value& matching) const;

    // A new iterator over `items` (each retained by the iterator), with one reference for the
    // caller.
    io_iterator_t createIterator(const std::vector<io_object_t>& items);
    // The next item with one reference for the caller, or IO_OBJECT_NULL at the end.
    io_object_t iteratorNext(io_iterator_t iterator);
    void iteratorReset(io_iterator_t iterator);

    kern_return_t retain(io_object_t object);
    kern_return_t release(io_object_t object);
    // Live objects (entries and iterators, attached or held); tests use it to find leaks.
    std::size_t liveObjectCount() const { return objects_.size(); }
    int retainCountForTesting(io_object_t object) const;
    // Hands the registry to whichever thread uses it next, for a test that acts as another user on
    // a thread of its own while its own thread waits.
    void releaseOwningThreadForTesting() { owner_.release(); }

    IONotificationPort* createPort();
    void destroyPort(IONotificationPort* port);
    bool isPort(IONotificationPort* port) const;
    std::shared_ptr<RunLoopSource> portSource(IONotificationPort* port) const;
    // Arms a notification; `iterator` receives the notification's iterator, already holding the
    // entries matching now for a matched notification (drain it to arm).
    kern_return_t addNotification(IONotificationPort* port, const std::string& type,
                                  const Value& matching, MatchingCallback callback, void* refCon,
                                  io_iterator_t* iterator);

    // ---- for tools and tests ----
    struct EntryView {
        io_registry_entry_t handle;
        std::string name;
        std::string className;
        Value properties;
        std::vector<EntryView> children;
    };
    EntryView tree() const;

  private:
    struct Object;

    Object* find(io_object_t handle);
    const Object* find(io_object_t handle) const;
    io_object_t newHandle();
    void freeObject(io_object_t handle);
    void collectSubtree(io_registry_entry_t entry, std::vector<io_registry_entry_t>& out) const;
    void reportToNotifications(io_registry_entry_t entry, bool matched);
    void queueForNotification(qvRegistryNotification& notification, io_registry_entry_t entry,
                              bool& signal);
    void sortInTreeOrder(std::vector<io_registry_entry_t>& entries) const;
    void deliver(std::uint64_t portId);
    EntryView view(io_registry_entry_t entry) const;
    // Stamps a change of `entry`'s subtree on it and its ancestors; of its own properties too
    // when `ownChange`.
    void noteChange(io_registry_entry_t entry, bool ownChange);

    std::unordered_map<io_object_t, std::unique_ptr<Object>> objects_;
    std::map<std::string, std::string> superclasses_;
    NotificationPortList ports_;
    RegistryMatchingIndex index_{*this};
    std::size_t attachedEntries_ = 0;
    io_object_t nextHandle_ = 0x1000;
    std::shared_ptr<int> lifetime_ = std::make_shared<int>(0);
    io_registry_entry_t rootHandle_ = IO_OBJECT_NULL;
    mutable ThreadOwner owner_{"Registry"};
};

}  // namespace qv
