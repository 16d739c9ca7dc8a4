#include "Registry.h"

#include <algorithm>
#include <cstring>
#include <utility>

struct IONotificationPort {
    std::uint64_t id = 0;
    std::shared_ptr<qv::RunLoopSource> source;
    std::vector<std::unique_ptr<struct qvRegistryNotification>> notifications;
};

// One armed matching notification of a port.
struct qvRegistryNotification {
    bool matchedType = true;  // matched, or terminated
    qv::Value matching;
    qv::Registry::MatchingCallback callback = nullptr;
    void* refCon = nullptr;
    io_iterator_t iterator = IO_OBJECT_NULL;
    bool pending = false;
};

namespace qv {

struct Registry::Object {
    enum class Kind { Entry, Iterator } kind = Kind::Entry;
    int retainCount = 1;

    // Entry
    std::string name;
    std::string className;
    Value properties;
    io_registry_entry_t parent = IO_OBJECT_NULL;
    std::vector<io_registry_entry_t> children;
    bool attached = true;

    // Iterator
    std::vector<io_object_t> items;
    std::size_t position = 0;
    qvRegistryNotification* notification = nullptr;  // the notification that owns it, if any
};

namespace {

std::unique_ptr<Registry>& sharedSlot() {
    static std::unique_ptr<Registry> registry;
    return registry;
}

const std::pair<const char*, const char*> kKnownClasses[] = {
    {"IOService", "IORegistryEntry"},
    {"IORegistryEntry", "OSObject"},
    {"IOUSBNub", "IOService"},
    {"IOUSBDevice", "IOUSBNub"},
    {"IOUSBInterface", "IOUSBNub"},
    {"IOStorage", "IOService"},
    {"IOMedia", "IOStorage"},
    {"IOCDMedia", "IOMedia"},
    {"IODVDMedia", "IOMedia"},
    {"IOSerialBSDClient", "IOService"},
    {"IONetworkInterface", "IOService"},
    {"IOEthernetInterface", "IONetworkInterface"},
    {"IOPCIDevice", "IOService"},
};

}  // namespace

Registry::Registry() {
    for (const auto& [cls, super] : kKnownClasses) {
        superclasses_[cls] = super;
    }
    rootHandle_ = newHandle();
    auto root = std::make_unique<Object>();
    root->name = "Root";
    root->className = "IORegistryEntry";
    root->properties = Value(Dictionary{});
    objects_[rootHandle_] = std::move(root);
}

Registry::~Registry() = default;

Registry& Registry::shared() {
    auto& slot = sharedSlot();
    if (!slot) {
        slot = std::make_unique<Registry>();
    }
    return *slot;
}

void Registry::resetShared() {
    sharedSlot() = std::make_unique<Registry>();
}

io_object_t Registry::newHandle() {
    return nextHandle_++;
}

Registry::Object* Registry::find(io_object_t handle) {
    auto it = objects_.find(handle);
    return it == objects_.end() ? nullptr : it->second.get();
}

const Registry::Object* Registry::find(io_object_t handle) const {
    auto it = objects_.find(handle);
    return it == objects_.end() ? nullptr : it->second.get();
}

void Registry::registerClass(const std::string& className, const std::string& superclassName) {
    if (className != superclassName) {
        superclasses_[className] = superclassName;
    }
}

bool Registry::classConformsTo(const std::string& className, const std::string& ancestor) const {
    std::string current = className;
    // Bounded climb: a declared cycle cannot hang the lookup.
    for (int depth = 0; depth < 64; ++depth) {
        if (current == ancestor) {
            return true;
        }
        auto it = superclasses_.find(current);
        if (it == superclasses_.end()) {
            // Every class is an IOService unless declared otherwise.
            return (ancestor == "IOService" || ancestor == "IORegistryEntry" ||
                    ancestor == "OSObject") &&
                   current != "OSObject" && current != "IORegistryEntry";
        }
        current = it->second;
    }
    return false;
}

io_registry_entry_t Registry::addEntry(io_registry_entry_t parent, const std::string& className,
                                       const std::string& name, Value properties,
                                       io_registry_entry_t before) {
    if (parent == IO_OBJECT_NULL) {
        parent = rootHandle_;
    }
    Object* parentObject = find(parent);
    if (parentObject == nullptr || parentObject->kind != Object::Kind::Entry ||
        !parentObject->attached) {
        return IO_OBJECT_NULL;
    }
    if (!properties.isDictionary()) {
        properties = Value(Dictionary{});
    }
    io_registry_entry_t handle = newHandle();
    auto entry = std::make_unique<Object>();
    entry->className = className;
    entry->name = name.empty() ? className : name;
    entry->properties = std::move(properties);
    entry->parent = parent;
    objects_[handle] = std::move(entry);
    auto& siblings = parentObject->children;
    siblings.insert(std::find(siblings.begin(), siblings.end(), before), handle);
    reportToNotifications(handle, true);
    return handle;
}

bool Registry::setProperties(io_registry_entry_t entry, const Value& properties) {
    Object* object = find(entry);
    if (object == nullptr || object->kind != Object::Kind::Entry || !properties.isDictionary()) {
        return false;
    }
    for (const auto& [key, value] : *properties.asDictionary()) {
        if (value.isNil()) {
            object->properties.asDictionary()->erase(key);
        } else {
            object->properties.set(key, value);
        }
    }
    return true;
}

void Registry::collectSubtree(io_registry_entry_t entry,
                              std::vector<io_registry_entry_t>& out) const {
    // Iterative pre-order walk: a deep tree cannot overflow the stack.
    std::vector<io_registry_entry_t> stack{entry};
    while (!stack.empty()) {
        io_registry_entry_t current = stack.back();
        stack.pop_back();
        const Object* object = find(current);
        if (object == nullptr || object->kind != Object::Kind::Entry) {
            continue;
        }
        out.push_back(current);
        for (auto it = object->children.rbegin(); it != object->children.rend(); ++it) {
            const Object* child = find(*it);
            if (child != nullptr && child->attached) {
                stack.push_back(*it);
            }
        }
    }
}

bool Registry::removeEntry(io_registry_entry_t entry) {
    Object* object = find(entry);
    if (entry == rootHandle_ || object == nullptr || object->kind != Object::Kind::Entry ||
        !object->attached) {
        return false;
    }
    std::vector<io_registry_entry_t> subtree;
    collectSubtree(entry, subtree);
    for (io_registry_entry_t handle : subtree) {
        reportToNotifications(handle, false);
    }
    // Detach from the parent; the removed entries keep their links among themselves, so a
    // holder of a reference still sees what the device had.
    if (Object* parent = find(object->parent)) {
        auto& siblings = parent->children;
        siblings.erase(std::remove(siblings.begin(), siblings.end(), entry), siblings.end());
    }
    for (io_registry_entry_t handle : subtree) {
        if (Object* o = find(handle)) {
            o->attached = false;
        }
    }
    // Drop the tree's references last, children before parents.
    for (auto it = subtree.rbegin(); it != subtree.rend(); ++it) {
        release(*it);
    }
    return true;
}

bool Registry::isAttached(io_registry_entry_t entry) const {
    const Object* object = find(entry);
    return object != nullptr && object->kind == Object::Kind::Entry && object->attached;
}

bool Registry::isEntry(io_object_t object) const {
    const Object* o = find(object);
    return o != nullptr && o->kind == Object::Kind::Entry;
}

bool Registry::isIterator(io_object_t object) const {
    const Object* o = find(object);
    return o != nullptr && o->kind == Object::Kind::Iterator;
}

const std::string* Registry::entryName(io_registry_entry_t entry) const {
    const Object* o = find(entry);
    return (o != nullptr && o->kind == Object::Kind::Entry) ? &o->name : nullptr;
}

const std::string* Registry::entryClass(io_registry_entry_t entry) const {
    const Object* o = find(entry);
    if (o == nullptr) {
        return nullptr;
    }
    static const std::string kIteratorClass = "IOUserIterator";
    return o->kind == Object::Kind::Entry ? &o->className : &kIteratorClass;
}

const Value* Registry::entryProperties(io_registry_entry_t entry) const {
    const Object* o = find(entry);
    return (o != nullptr && o->kind == Object::Kind::Entry) ? &o->properties : nullptr;
}

io_registry_entry_t Registry::entryParent(io_registry_entry_t entry) const {
    const Object* o = find(entry);
    if (o == nullptr || o->kind != Object::Kind::Entry || !isEntry(o->parent)) {
        return IO_OBJECT_NULL;
    }
    return o->parent;
}

std::vector<io_registry_entry_t> Registry::entryChildren(io_registry_entry_t entry) const {
    std::vector<io_registry_entry_t> children;
    const Object* o = find(entry);
    if (o == nullptr || o->kind != Object::Kind::Entry) {
        return children;
    }
    for (io_registry_entry_t child : o->children) {
        if (isEntry(child)) {
            children.push_back(child);
        }
    }
    return children;
}

std::vector<io_registry_entry_t> Registry::entryDescendants(io_registry_entry_t entry) const {
    std::vector<io_registry_entry_t> all;
    collectSubtree(entry, all);
    if (!all.empty()) {
        all.erase(all.begin());  // the entry itself
    }
    return all;
}

std::optional<std::string> Registry::entryPath(io_registry_entry_t entry) const {
    std::vector<const std::string*> names;
    io_registry_entry_t current = entry;
    for (int depth = 0; current != rootHandle_; ++depth) {
        const Object* o = find(current);
        if (o == nullptr || o->kind != Object::Kind::Entry || depth > 4096) {
            return std::nullopt;
        }
        names.push_back(&o->name);
        current = o->parent;
    }
    std::string path = std::string(kIOServicePlane) + ":/";
    for (auto it = names.rbegin(); it != names.rend(); ++it) {
        if (it != names.rbegin()) {
            path += '/';
        }
        path += **it;
    }
    return path;
}

bool Registry::matches(io_registry_entry_t entry, const Value& matching) const {
    const Object* o = find(entry);
    const Dictionary* dict = matching.asDictionary();
    if (o == nullptr || o->kind != Object::Kind::Entry || dict == nullptr || entry == rootHandle_) {
        return false;
    }
    for (const auto& [key, wanted] : *dict) {
        if (key == kIOProviderClassKey) {
            const std::string* cls = wanted.asString();
            if (cls == nullptr || !classConformsTo(o->className, *cls)) {
                return false;
            }
        } else if (key == kIONameMatchKey) {
            bool any = false;
            if (const std::string* name = wanted.asString()) {
                any = *name == o->name;
            } else if (const Array* names = wanted.asArray()) {
                any = std::any_of(names->begin(), names->end(),
                                  [&](const Value& n) { return n == Value(o->name); });
            }
            if (!any) {
                return false;
            }
        } else if (key == kIOPropertyMatchKey) {
            const Dictionary* props = wanted.asDictionary();
            if (props == nullptr) {
                return false;
            }
            for (const auto& [propKey, propValue] : *props) {
                if (!(o->properties[propKey] == propValue)) {
                    return false;
                }
            }
        } else if (key == "IOMatchCategory" || key == "IOProbeScore") {
            continue;
        } else if (!(o->properties[key] == wanted)) {
            return false;
        }
    }
    return true;
}

std::vector<io_registry_entry_t> Registry::matchingEntries(const Value& matching) const {
    std::vector<io_registry_entry_t> all = entryDescendants(rootHandle_);
    std::vector<io_registry_entry_t> matched;
    for (io_registry_entry_t entry : all) {
        if (matches(entry, matching)) {
            matched.push_back(entry);
        }
    }
    return matched;
}

io_iterator_t Registry::createIterator(const std::vector<io_object_t>& items) {
    io_iterator_t handle = newHandle();
    auto iterator = std::make_unique<Object>();
    iterator->kind = Object::Kind::Iterator;
    iterator->items = items;
    objects_[handle] = std::move(iterator);
    for (io_object_t item : items) {
        retain(item);
    }
    return handle;
}

io_object_t Registry::iteratorNext(io_iterator_t iterator) {
    Object* it = find(iterator);
    if (it == nullptr || it->kind != Object::Kind::Iterator) {
        return IO_OBJECT_NULL;
    }
    while (it->position < it->items.size()) {
        io_object_t item = it->items[it->position++];
        if (find(item) != nullptr) {
            retain(item);
            return item;
        }
    }
    return IO_OBJECT_NULL;
}

void Registry::iteratorReset(io_iterator_t iterator) {
    Object* it = find(iterator);
    if (it != nullptr && it->kind == Object::Kind::Iterator) {
        it->position = 0;
    }
}

kern_return_t Registry::retain(io_object_t object) {
    Object* o = find(object);
    if (o == nullptr) {
        return kIOReturnBadArgument;
    }
    ++o->retainCount;
    return kIOReturnSuccess;
}

kern_return_t Registry::release(io_object_t object) {
    Object* o = find(object);
    if (o == nullptr) {
        return kIOReturnBadArgument;
    }
    // The tree's own reference on an attached entry is dropped only by removeEntry().
    if (--o->retainCount <= 0) {
        freeObject(object);
    }
    return kIOReturnSuccess;
}

void Registry::freeObject(io_object_t handle) {
    auto node = objects_.extract(handle);
    if (node.empty()) {
        return;
    }
    Object& object = *node.mapped();
    if (object.kind == Object::Kind::Iterator) {
        // A notification whose iterator is released is gone.
        if (object.notification != nullptr) {
            for (auto& port : ports_) {
                auto& list = port->notifications;
                list.erase(
                    std::remove_if(list.begin(), list.end(),
                                   [&](const auto& n) { return n.get() == object.notification; }),
                    list.end());
            }
        }
        for (io_object_t item : object.items) {
            release(item);
        }
    }
}

int Registry::retainCountForTesting(io_object_t object) const {
    const Object* o = find(object);
    return o == nullptr ? 0 : o->retainCount;
}

IONotificationPort* Registry::createPort() {
    auto port = std::make_unique<IONotificationPort>();
    IONotificationPort* raw = port.get();
    port->id = nextPortId_++;
    // The source may outlive the port and the registry (whoever added it to a run loop holds
    // it): it finds its port again by id, and only while this registry is alive.
    std::weak_ptr<int> alive = lifetime_;
    std::uint64_t id = port->id;
    port->source = std::make_shared<RunLoopSource>([this, alive, id]() {
        if (alive.lock()) {
            deliver(id);
        }
    });
    ports_.push_back(std::move(port));
    return raw;
}

bool Registry::isPort(IONotificationPort* port) const {
    return port != nullptr && std::any_of(ports_.begin(), ports_.end(),
                                          [&](const auto& p) { return p.get() == port; });
}

void Registry::destroyPort(IONotificationPort* port) {
    auto it =
        std::find_if(ports_.begin(), ports_.end(), [&](const auto& p) { return p.get() == port; });
    if (it == ports_.end()) {
        return;
    }
    std::unique_ptr<IONotificationPort> owned = std::move(*it);
    ports_.erase(it);
    // The notifications end with the port; their iterators stay valid objects until released.
    for (auto& notification : owned->notifications) {
        if (Object* iterator = find(notification->iterator)) {
            iterator->notification = nullptr;
        }
    }
}

std::shared_ptr<RunLoopSource> Registry::portSource(IONotificationPort* port) const {
    return isPort(port) ? port->source : nullptr;
}

kern_return_t Registry::addNotification(IONotificationPort* port, const std::string& type,
                                        const Value& matching, MatchingCallback callback,
                                        void* refCon, io_iterator_t* iterator) {
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
    port->notifications.push_back(std::move(notification));
    return kIOReturnSuccess;
}

void Registry::reportToNotifications(io_registry_entry_t entry, bool matched) {
    for (auto& port : ports_) {
        bool signal = false;
        for (auto& notification : port->notifications) {
            if (notification->matchedType != matched || !matches(entry, notification->matching)) {
                continue;
            }
            Object* iterator = find(notification->iterator);
            if (iterator == nullptr) {
                continue;
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
            if (armed && !notification->pending) {
                notification->pending = true;
                signal = true;
            }
        }
        if (signal) {
            port->source->signal();
        }
    }
}

void Registry::deliver(std::uint64_t portId) {
    auto found =
        std::find_if(ports_.begin(), ports_.end(), [&](const auto& p) { return p->id == portId; });
    if (found == ports_.end()) {
        return;
    }
    IONotificationPort* port = found->get();
    // Callbacks may add notifications to this port or destroy it: walk by index and re-check.
    for (std::size_t i = 0; isPort(port) && i < port->notifications.size(); ++i) {
        qvRegistryNotification* notification = port->notifications[i].get();
        if (!notification->pending) {
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

Registry::EntryView Registry::view(io_registry_entry_t entry) const {
    const Object* o = find(entry);
    EntryView v{entry, o->name, o->className, o->properties, {}};
    for (io_registry_entry_t child : entryChildren(entry)) {
        v.children.push_back(view(child));
    }
    return v;
}

Registry::EntryView Registry::tree() const {
    return view(rootHandle_);
}

}  // namespace qv
