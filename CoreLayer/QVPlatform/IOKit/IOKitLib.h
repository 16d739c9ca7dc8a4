// The I/O Kit functions the framework calls, under their platform names, over the in-memory
// registry (Registry.h). Semantics follow the original:
// - every io_object_t a function hands out carries a reference the caller releases with
//   IOObjectRelease (IOIteratorNext's entries, iterators, notification iterators);
// - a property read (IORegistryEntryCreateCFProperty) gives a copy the caller owns (a value);
// - a matching notification's iterator must be drained for the notification to be armed again;
//   callbacks are delivered through the notification port's run-loop source, never from inside
//   the registry change that caused them.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "IOKitTypes.h"
#include "RunLoop/RunLoop.h"

struct IONotificationPort;
using IONotificationPortRef = IONotificationPort*;
using IOServiceMatchingCallback = void (*)(void* refCon, io_iterator_t iterator);

// The master port: always kIOMasterPortDefault. mach_port_deallocate of it does nothing.
kern_return_t IOMasterPort(mach_port_t bootstrapPort, mach_port_t* masterPort);
mach_port_t mach_task_self();
kern_return_t mach_port_deallocate(mach_port_t task, mach_port_t name);

CFMutableDictionaryRef IOServiceMatching(const char* className);
CFMutableDictionaryRef IOServiceNameMatching(const char* name);

kern_return_t IOServiceGetMatchingServices(mach_port_t masterPort, CFDictionaryRef matching,
                                           io_iterator_t* existing);

IONotificationPortRef IONotificationPortCreate(mach_port_t masterPort);
void IONotificationPortDestroy(IONotificationPortRef port);
qv::CFRunLoopSourceRef IONotificationPortGetRunLoopSource(IONotificationPortRef port);

kern_return_t IOServiceAddMatchingNotification(IONotificationPortRef port,
                                               const char* notificationType,
                                               CFDictionaryRef matching,
                                               IOServiceMatchingCallback callback, void* refCon,
                                               io_iterator_t* notification);

io_object_t IOIteratorNext(io_iterator_t iterator);
bool IOIteratorIsValid(io_iterator_t iterator);
void IOIteratorReset(io_iterator_t iterator);

kern_return_t IORegistryEntryCreateIterator(io_registry_entry_t entry, const char* plane,
                                            IOOptionBits options, io_iterator_t* iterator);
kern_return_t IORegistryEntryGetChildIterator(io_registry_entry_t entry, const char* plane,
                                              io_iterator_t* iterator);
kern_return_t IORegistryEntryGetParentIterator(io_registry_entry_t entry, const char* plane,
                                               io_iterator_t* iterator);
kern_return_t IORegistryEntryGetParentEntry(io_registry_entry_t entry, const char* plane,
                                            io_registry_entry_t* parent);

// nil when the entry or the property does not exist.
qv::Value IORegistryEntryCreateCFProperty(io_registry_entry_t entry, std::string_view key,
                                          const void* allocator = nullptr,
                                          IOOptionBits options = 0);
kern_return_t IORegistryEntryCreateCFProperties(io_registry_entry_t entry, qv::Value* properties,
                                                const void* allocator = nullptr,
                                                IOOptionBits options = 0);

kern_return_t IORegistryEntryGetName(io_registry_entry_t entry, io_name_t name);
kern_return_t IORegistryEntryGetNameInPlane(io_registry_entry_t entry, const char* plane,
                                            io_name_t name);
// Not an I/O Kit function: a number that changes whenever anything a reader of the entry can see
// changes (its properties, its subtree, its ancestors' properties), so that a reader can skip a
// walk that would find what it found last time. 0 for an object that is not an entry.
std::uint64_t qvRegistryEntryGetChangeStamp(io_registry_entry_t entry);
kern_return_t IORegistryEntryGetPath(io_registry_entry_t entry, const char* plane,
                                     io_string_t path);
kern_return_t IOObjectGetClass(io_object_t object, io_name_t className);
bool IOObjectConformsTo(io_object_t object, const char* className);
bool IOObjectIsEqualTo(io_object_t object, io_object_t other);
kern_return_t IOObjectRetain(io_object_t object);
kern_return_t IOObjectRelease(io_object_t object);
