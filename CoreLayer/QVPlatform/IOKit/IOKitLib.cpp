#include "IOKitLib.h"

#include <cstring>
#include <string>

#include "Registry.h"

namespace {

qv::Registry& registry() {
    return qv::Registry::shared();
}

// Copies into a fixed-size platform buffer, always terminated, never past its end.
template <std::size_t N>
void copyOut(char (&buffer)[N], const std::string& text) {
    std::size_t n = std::min(text.size(), N - 1);
    std::memcpy(buffer, text.data(), n);
    buffer[n] = '\0';
}

}  // namespace

kern_return_t IOMasterPort(mach_port_t, mach_port_t* masterPort) {
    if (masterPort == nullptr) {
        return KERN_INVALID_ARGUMENT;
    }
    *masterPort = kIOMasterPortDefault;
    return KERN_SUCCESS;
}

mach_port_t mach_task_self() {
    return MACH_PORT_NULL;
}

kern_return_t mach_port_deallocate(mach_port_t, mach_port_t) {
    return KERN_SUCCESS;
}

CFMutableDictionaryRef IOServiceMatching(const char* className) {
    if (className == nullptr) {
        return {};
    }
    return qv::Value(qv::Dictionary{{kIOProviderClassKey, qv::Value(className)}});
}

CFMutableDictionaryRef IOServiceNameMatching(const char* name) {
    if (name == nullptr) {
        return {};
    }
    return qv::Value(qv::Dictionary{{kIONameMatchKey, qv::Value(name)}});
}

kern_return_t IOServiceGetMatchingServices(mach_port_t, CFDictionaryRef matching,
                                           io_iterator_t* existing) {
    if (existing == nullptr || !matching.isDictionary()) {
        return kIOReturnBadArgument;
    }
    *existing = registry().createIterator(registry().matchingEntries(matching));
    return kIOReturnSuccess;
}

IONotificationPortRef IONotificationPortCreate(mach_port_t) {
    return registry().createPort();
}

void IONotificationPortDestroy(IONotificationPortRef port) {
    registry().destroyPort(port);
}

qv::CFRunLoopSourceRef IONotificationPortGetRunLoopSource(IONotificationPortRef port) {
    return registry().portSource(port);
}

kern_return_t IOServiceAddMatchingNotification(IONotificationPortRef port,
                                               const char* notificationType,
                                               CFDictionaryRef matching,
                                               IOServiceMatchingCallback callback, void* refCon,
                                               io_iterator_t* notification) {
    if (notificationType == nullptr) {
        return kIOReturnBadArgument;
    }
    return registry().addNotification(port, notificationType, matching, callback, refCon,
                                      notification);
}

io_object_t IOIteratorNext(io_iterator_t iterator) {
    return registry().iteratorNext(iterator);
}

bool IOIteratorIsValid(io_iterator_t iterator) {
    return registry().isIterator(iterator);
}

void IOIteratorReset(io_iterator_t iterator) {
    registry().iteratorReset(iterator);
}

kern_return_t IORegistryEntryCreateIterator(io_registry_entry_t entry, const char* plane,
                                            IOOptionBits options, io_iterator_t* iterator) {
    if (iterator == nullptr || !registry().isEntry(entry) || plane == nullptr ||
        std::strcmp(plane, kIOServicePlane) != 0) {
        return kIOReturnBadArgument;
    }
    if ((options & kIORegistryIterateRecursively) != 0) {
        *iterator = registry().createIterator(registry().entryDescendants(entry));
    } else {
        *iterator = registry().createIterator(registry().entryChildren(entry));
    }
    return kIOReturnSuccess;
}

kern_return_t IORegistryEntryGetChildIterator(io_registry_entry_t entry, const char* plane,
                                              io_iterator_t* iterator) {
    return IORegistryEntryCreateIterator(entry, plane, 0, iterator);
}

kern_return_t IORegistryEntryGetParentIterator(io_registry_entry_t entry, const char* plane,
                                               io_iterator_t* iterator) {
    if (iterator == nullptr || !registry().isEntry(entry) || plane == nullptr ||
        std::strcmp(plane, kIOServicePlane) != 0) {
        return kIOReturnBadArgument;
    }
    std::vector<io_object_t> parents;
    io_registry_entry_t parent = registry().entryParent(entry);
    // The root has no provider in the IOService plane.
    if (parent != IO_OBJECT_NULL && parent != registry().root()) {
        parents.push_back(parent);
    }
    *iterator = registry().createIterator(parents);
    return kIOReturnSuccess;
}

kern_return_t IORegistryEntryGetParentEntry(io_registry_entry_t entry, const char* plane,
                                            io_registry_entry_t* parent) {
    io_iterator_t iterator = IO_OBJECT_NULL;
    kern_return_t kr = IORegistryEntryGetParentIterator(entry, plane, &iterator);
    if (kr != kIOReturnSuccess) {
        return kr;
    }
    *parent = IOIteratorNext(iterator);
    IOObjectRelease(iterator);
    return *parent != IO_OBJECT_NULL ? kIOReturnSuccess : kIOReturnNoDevice;
}

qv::Value IORegistryEntryCreateCFProperty(io_registry_entry_t entry, std::string_view key,
                                          const void*, IOOptionBits) {
    const qv::Value* properties = registry().entryProperties(entry);
    if (properties == nullptr) {
        return {};
    }
    return (*properties)[key];
}

kern_return_t IORegistryEntryCreateCFProperties(io_registry_entry_t entry, qv::Value* properties,
                                                const void*, IOOptionBits) {
    const qv::Value* stored = registry().entryProperties(entry);
    if (stored == nullptr || properties == nullptr) {
        return kIOReturnBadArgument;
    }
    *properties = *stored;
    return kIOReturnSuccess;
}

kern_return_t IORegistryEntryGetName(io_registry_entry_t entry, io_name_t name) {
    const std::string* stored = registry().entryName(entry);
    if (stored == nullptr || name == nullptr) {
        return kIOReturnBadArgument;
    }
    copyOut(*reinterpret_cast<char(*)[sizeof(io_name_t)]>(name), *stored);
    return kIOReturnSuccess;
}

kern_return_t IORegistryEntryGetNameInPlane(io_registry_entry_t entry, const char* plane,
                                            io_name_t name) {
    if (plane == nullptr || std::strcmp(plane, kIOServicePlane) != 0) {
        return kIOReturnBadArgument;
    }
    return IORegistryEntryGetName(entry, name);
}

std::uint64_t qvRegistryEntryGetChangeStamp(io_registry_entry_t entry) {
    return registry().changeStamp(entry);
}

kern_return_t IORegistryEntryGetPath(io_registry_entry_t entry, const char* plane,
                                     io_string_t path) {
    if (plane == nullptr || std::strcmp(plane, kIOServicePlane) != 0 || path == nullptr) {
        return kIOReturnBadArgument;
    }
    std::optional<std::string> text = registry().entryPath(entry);
    // The platform refuses a path that does not fit its buffer.
    if (!text || text->size() >= sizeof(io_string_t)) {
        return kIOReturnBadArgument;
    }
    copyOut(*reinterpret_cast<char(*)[sizeof(io_string_t)]>(path), *text);
    return kIOReturnSuccess;
}

kern_return_t IOObjectGetClass(io_object_t object, io_name_t className) {
    const std::string* stored = registry().entryClass(object);
    if (stored == nullptr || className == nullptr) {
        return kIOReturnBadArgument;
    }
    copyOut(*reinterpret_cast<char(*)[sizeof(io_name_t)]>(className), *stored);
    return kIOReturnSuccess;
}

bool IOObjectConformsTo(io_object_t object, const char* className) {
    const std::string* stored = registry().entryClass(object);
    return stored != nullptr && className != nullptr &&
           registry().classConformsTo(*stored, className);
}

bool IOObjectIsEqualTo(io_object_t object, io_object_t other) {
    return object == other;
}

kern_return_t IOObjectRetain(io_object_t object) {
    return registry().retain(object);
}

kern_return_t IOObjectRelease(io_object_t object) {
    return registry().release(object);
}
