#include "Registry.h"

#include "RegistryObject.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <utility>

namespace qv {

namespace {

// Process-wide, so that a registry made after a reset never hands out a number seen before.
std::atomic<std::uint64_t> lastChangeStamp{0};

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
    owner_.check(__func__);
    if (className != superclassName) {
        superclasses_[className] = superclassName;
    }
}

bool Registry::classConformsTo(const std::string& className, const std::string& ancestor) const {
    owner_.check(__func__);
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
    owner_.check(__func__);
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
    index_.addEntry(handle, entry->className, entry->name, entry->properties);
    ++attachedEntries_;
    objects_[handle] = std::move(entry);
    auto& siblings = parentObject->children;
    siblings.insert(std::find(siblings.begin(), siblings.end(), before), handle);
    noteChange(handle, true);
    reportToNotifications(handle, true);
    return handle;
}

bool Registry::setProperties(io_registry_entry_t entry, const Value& properties) {
    owner_.check(__func__);
    Object* object = find(entry);
    if (object == nullptr || object->kind != Object::Kind::Entry || !properties.isDictionary()) {
        return false;
    }
    // The index files an entry by its properties: take it out while they change.
    if (object->attached) {
        index_.removeEntry(entry, object->className, object->name, object->properties);
    }
    for (const auto& [key, value] : *properties.asDictionary()) {
        if (value.isNil()) {
            object->properties.asDictionary()->erase(key);
        } else {
            object->properties.set(key, value);
        }
    }
    if (object->attached) {
        index_.addEntry(entry, object->className, object->name, object->properties);
    }
    noteChange(entry, true);
    return true;
}

void Registry::noteChange(io_registry_entry_t entry, bool ownChange) {
    const std::uint64_t stamp = ++lastChangeStamp;
    Object* object = find(entry);
    if (object != nullptr && ownChange) {
        object->ownStamp = stamp;
    }
    while (object != nullptr) {
        object->subtreeStamp = stamp;
        object = object->parent == IO_OBJECT_NULL ? nullptr : find(object->parent);
    }
}

std::uint64_t Registry::changeStamp(io_registry_entry_t entry) const {
    owner_.check(__func__);
    const Object* object = find(entry);
    if (object == nullptr || object->kind != Object::Kind::Entry) {
        return 0;
    }
    std::uint64_t stamp = object->subtreeStamp;
    for (const Object* ancestor = find(object->parent); ancestor != nullptr;
         ancestor = find(ancestor->parent)) {
        stamp = std::max(stamp, ancestor->ownStamp);
    }
    return stamp;
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
    owner_.check(__func__);
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
        if (Object* o = find(handle); o != nullptr && o->attached) {
            o->attached = false;
            index_.removeEntry(handle, o->className, o->name, o->properties);
            --attachedEntries_;
        }
    }
    // Every removed entry now looks different (detached, no attached children); so do the
    // remaining ancestors.
    for (auto it = subtree.rbegin(); it != subtree.rend(); ++it) {
        noteChange(*it, true);
    }
    noteChange(object->parent, false);
    // Drop the tree's references last, children before parents.
    for (auto it = subtree.rbegin(); it != subtree.rend(); ++it) {
        release(*it);
    }
    return true;
}

bool Registry::isAttached(io_registry_entry_t entry) const {
    owner_.check(__func__);
    const Object* object = find(entry);
    return object != nullptr && object->kind == Object::Kind::Entry && object->attached;
}

bool Registry::isEntry(io_object_t object) const {
    owner_.check(__func__);
    const Object* o = find(object);
    return o != nullptr && o->kind == Object::Kind::Entry;
}

bool Registry::isIterator(io_object_t object) const {
    owner_.check(__func__);
    const Object* o = find(object);
    return o != nullptr && o->kind == Object::Kind::Iterator;
}

const std::string* Registry::entryName(io_registry_entry_t entry) const {
    owner_.check(__func__);
    const Object* o = find(entry);
    return (o != nullptr && o->kind == Object::Kind::Entry) ? &o->name : nullptr;
}

const std::string* Registry::entryClass(io_registry_entry_t entry) const {
    owner_.check(__func__);
    const Object* o = find(entry);
    if (o == nullptr) {
        return nullptr;
    }
    static const std::string kIteratorClass = "IOUserIterator";
    return o->kind == Object::Kind::Entry ? &o->className : &kIteratorClass;
}

const Value* Registry::entryProperties(io_registry_entry_t entry) const {
    owner_.check(__func__);
    const Object* o = find(entry);
    return (o != nullptr && o->kind == Object::Kind::Entry) ? &o->properties : nullptr;
}

io_registry_entry_t Registry::entryParent(io_registry_entry_t entry) const {
    owner_.check(__func__);
    const Object* o = find(entry);
    if (o == nullptr || o->kind != Object::Kind::Entry || !isEntry(o->parent)) {
        return IO_OBJECT_NULL;
    }
    return o->parent;
}

std::vector<io_registry_entry_t> Registry::entryChildren(io_registry_entry_t entry) const {
    owner_.check(__func__);
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
    owner_.check(__func__);
    std::vector<io_registry_entry_t> all;
    collectSubtree(entry, all);
    if (!all.empty()) {
        all.erase(all.begin());  // the entry itself
    }
    return all;
}

std::optional<std::string> Registry::entryPath(io_registry_entry_t entry) const {
    owner_.check(__func__);
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
    owner_.check(__func__);
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
    owner_.check(__func__);
    std::vector<io_registry_entry_t> matched;
    auto candidates = index_.entryCandidates(matching);
    // Ordering a few candidates is cheap; when most of the tree is a candidate, walk it.
    if (candidates && candidates->size() * 4 <= attachedEntries_) {
        for (io_registry_entry_t entry : *candidates) {
            if (matches(entry, matching)) {
                matched.push_back(entry);
            }
        }
        sortInTreeOrder(matched);
        return matched;
    }
    for (io_registry_entry_t entry : entryDescendants(rootHandle_)) {
        if (matches(entry, matching)) {
            matched.push_back(entry);
        }
    }
    return matched;
}

void Registry::sortInTreeOrder(std::vector<io_registry_entry_t>& entries) const {
    if (entries.size() < 2) {
        return;
    }
    // An attached entry's place in the walk is its chain of child positions from the root.
    std::vector<std::pair<std::vector<std::size_t>, io_registry_entry_t>> keyed;
    keyed.reserve(entries.size());
    for (io_registry_entry_t entry : entries) {
        std::vector<std::size_t> positions;
        io_registry_entry_t current = entry;
        while (current != rootHandle_) {
            const Object* object = find(current);
            const Object* parent = object ? find(object->parent) : nullptr;
            if (parent == nullptr) {
                break;
            }
            const auto& siblings = parent->children;
            positions.push_back(static_cast<std::size_t>(
                std::find(siblings.begin(), siblings.end(), current) - siblings.begin()));
            current = object->parent;
        }
        std::reverse(positions.begin(), positions.end());
        keyed.emplace_back(std::move(positions), entry);
    }
    std::sort(keyed.begin(), keyed.end());
    for (std::size_t i = 0; i < keyed.size(); ++i) {
        entries[i] = keyed[i].second;
    }
}

io_iterator_t Registry::createIterator(const std::vector<io_object_t>& items) {
    owner_.check(__func__);
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
    owner_.check(__func__);
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
    owner_.check(__func__);
    Object* it = find(iterator);
    if (it != nullptr && it->kind == Object::Kind::Iterator) {
        it->position = 0;
    }
}

kern_return_t Registry::retain(io_object_t object) {
    owner_.check(__func__);
    Object* o = find(object);
    if (o == nullptr) {
        return kIOReturnBadArgument;
    }
    ++o->retainCount;
    return kIOReturnSuccess;
}

kern_return_t Registry::release(io_object_t object) {
    owner_.check(__func__);
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
            index_.removeNotification(object.notification);
            ports_.erase(object.notification);
        }
        for (io_object_t item : object.items) {
            release(item);
        }
    }
}

int Registry::retainCountForTesting(io_object_t object) const {
    owner_.check(__func__);
    const Object* o = find(object);
    return o == nullptr ? 0 : o->retainCount;
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
    owner_.check(__func__);
    return view(rootHandle_);
}

}  // namespace qv
