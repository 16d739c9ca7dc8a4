// Registry timelines on any bytes: reading never crashes, and a timeline it accepts plays to its
// last event in a fresh registry on a virtual run loop without a crash, while a client watches
// every entry come and go through matching notifications (holding each matched entry until it is
// terminated, as the device notification center does). Once the client has let go of everything,
// only the entries still attached may be alive: anything else is a leaked handle.
//
// Every event of an accepted story is played, so inputs are bounded to keep runs fast.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <set>
#include <string>

#include "FuzzJsonInput.h"
#include "IOKit/IOKitLib.h"
#include "IOKit/Registry.h"
#include "IOKit/ScriptedFeeder.h"
#include "IOKit/ScriptedTimeline.h"
#include "RunLoop/VirtualRunLoop.h"

namespace {

constexpr std::size_t kMaxInputSize = 4096;

struct Client {
    std::set<io_registry_entry_t> held;
};

// Reads what a client reads of an entry: its names, its properties and its neighbours.
void look(io_registry_entry_t entry) {
    io_name_t name;
    io_string_t path;
    (void)IORegistryEntryGetName(entry, name);
    (void)IOObjectGetClass(entry, name);
    (void)IORegistryEntryGetPath(entry, kIOServicePlane, path);
    qv::Value properties;
    (void)IORegistryEntryCreateCFProperties(entry, &properties);
    (void)properties.description();
    io_iterator_t children = IO_OBJECT_NULL;
    if (IORegistryEntryGetChildIterator(entry, kIOServicePlane, &children) == KERN_SUCCESS) {
        while (io_object_t child = IOIteratorNext(children)) {
            IOObjectRelease(child);
        }
        IOObjectRelease(children);
    }
    io_registry_entry_t parent = IO_OBJECT_NULL;
    if (IORegistryEntryGetParentEntry(entry, kIOServicePlane, &parent) == KERN_SUCCESS) {
        IOObjectRelease(parent);
    }
}

void matched(void* refCon, io_iterator_t iterator) {
    auto* client = static_cast<Client*>(refCon);
    while (io_object_t entry = IOIteratorNext(iterator)) {
        look(entry);
        if (!client->held.insert(entry).second) {
            IOObjectRelease(entry);  // already held from an earlier batch
        }
    }
}

void terminated(void* refCon, io_iterator_t iterator) {
    auto* client = static_cast<Client*>(refCon);
    while (io_object_t entry = IOIteratorNext(iterator)) {
        look(entry);  // gone from the tree, still readable while held
        if (client->held.erase(entry) != 0) {
            IOObjectRelease(entry);
        }
        IOObjectRelease(entry);
    }
}

void play(qv::ScriptedTimeline timeline) {
    auto loop = std::make_shared<qv::VirtualRunLoop>();
    qv::RunLoop::setCurrent(loop);
    qv::Registry::resetShared();
    qv::Registry& registry = qv::Registry::shared();

    IONotificationPortRef port = IONotificationPortCreate(kIOMasterPortDefault);
    qv::CFRunLoopAddSource(qv::CFRunLoopGetCurrent(), IONotificationPortGetRunLoopSource(port),
                           qv::kCFRunLoopCommonModes);
    Client client;
    io_iterator_t matchedIt = IO_OBJECT_NULL;
    io_iterator_t terminatedIt = IO_OBJECT_NULL;
    IOServiceAddMatchingNotification(port, kIOMatchedNotification, IOServiceMatching("IOService"),
                                     matched, &client, &matchedIt);
    IOServiceAddMatchingNotification(port, kIOTerminatedNotification,
                                     IOServiceMatching("IOService"), terminated, &client,
                                     &terminatedIt);
    matched(&client, matchedIt);
    terminated(&client, terminatedIt);

    const double end = timeline.endTime();
    {
        qv::ScriptedFeeder feeder(registry, std::move(timeline));
        feeder.schedule(*loop);
        loop->runUntil(end);
        if (!feeder.finished()) {
            std::fprintf(stderr, "the feeder stopped before the last event\n");
            std::abort();
        }
    }
    (void)registry.tree();

    // Let go of everything before the registry is replaced, as a client tearing down does.
    IONotificationPortDestroy(port);
    IOObjectRelease(matchedIt);
    IOObjectRelease(terminatedIt);
    for (io_registry_entry_t entry : client.held) {
        IOObjectRelease(entry);
    }
    const std::size_t attached = registry.entryDescendants(registry.root()).size() + 1;
    if (registry.liveObjectCount() != attached) {
        std::fprintf(stderr, "%zu objects alive, %zu entries attached\n",
                     registry.liveObjectCount(), attached);
        std::abort();
    }
    qv::Registry::resetShared();
    qv::RunLoop::setCurrent(nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::optional<qv::Json> json = fuzzInputAsJson(data, size, kMaxInputSize);
    if (!json) {
        return 0;
    }
    std::string error;
    auto timeline = qv::ScriptedTimeline::fromJson(*json, &error);
    if (!timeline) {
        if (error.empty()) {
            std::fprintf(stderr, "a refused timeline without a reason\n");
            std::abort();
        }
        return 0;
    }
    play(std::move(*timeline));
    return 0;
}
