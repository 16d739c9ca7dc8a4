// The matching index only narrows: lookups and notifications must answer exactly what testing
// every entry against every dictionary answers, in the same order.
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "IOKit/IOKitLib.h"
#include "IOKit/Registry.h"
#include "RunLoop/VirtualRunLoop.h"
#include "Support/VirtualRegistryTest.h"

namespace {

// Each test gets a fresh process registry on a virtual run loop.
class RegistryMatchingIndexTest : public VirtualRegistryTest {
  protected:
    qv::Registry& registry() { return qv::Registry::shared(); }

    // What a walk over the whole tree finds, in tree order.
    std::vector<io_registry_entry_t> bruteForce(const qv::Value& matching) {
        std::vector<io_registry_entry_t> found;
        for (io_registry_entry_t entry : registry().entryDescendants(registry().root())) {
            if (registry().matches(entry, matching)) {
                found.push_back(entry);
            }
        }
        return found;
    }
};

// Numbers of every kind the registry compares by value, and things that are no number.
qv::Value someId(std::mt19937& random) {
    switch (random() % 6) {
        case 0:
            return qv::Value(4817.0);
        case 1:
            return qv::Value(4817.5);
        case 2:
            return qv::Value(true);
        case 3:
            return qv::Value("4817");
        default:
            return qv::Value(static_cast<int>(random() % 3) + 4816);  // 4816, 4817 or 4818
    }
}

qv::Value someProperties(std::mt19937& random) {
    qv::Value properties{qv::Dictionary{}};
    if (random() % 4 != 0) {
        properties.set("idVendor", someId(random));
    }
    if (random() % 4 != 0) {
        properties.set("idProduct", someId(random));
    }
    return properties;
}

qv::Value someMatching(std::mt19937& random) {
    static const char* const kClasses[] = {"IOUSBDevice", "IOService",      "IOMedia",
                                           "IOCDMedia",   "IOUSBInterface", "Unknown"};
    static const char* const kNames[] = {"Stick", "Modem", "IOMedia"};
    qv::Value matching{qv::Dictionary{}};
    if (random() % 3 != 0) {
        matching.set(kIOProviderClassKey, kClasses[random() % 6]);
    }
    if (random() % 4 == 0) {
        matching.set(kIONameMatchKey, kNames[random() % 3]);
    }
    if (random() % 2 == 0) {
        matching.set("idVendor", someId(random));
        if (random() % 4 != 0) {
            matching.set("idProduct", someId(random));
        }
    }
    return matching;
}

TEST_F(RegistryMatchingIndexTest, LookupsAgreeWithAWalkOverTheWholeTreeThroughChanges) {
    static const char* const kClasses[] = {"IOUSBDevice", "IOUSBInterface", "IOCDMedia", "IOMedia",
                                           "VendorSpecific"};
    static const char* const kNames[] = {"", "Stick", "Modem", "IOMedia"};
    std::mt19937 random(11);
    std::vector<io_registry_entry_t> attached;
    for (int step = 0; step < 1500; ++step) {
        const unsigned action = random() % 10;
        if (action < 5 || attached.empty()) {
            // New entries go below random earlier ones, so tree order is not arrival order.
            io_registry_entry_t parent = attached.empty() || random() % 3 == 0
                                             ? IO_OBJECT_NULL
                                             : attached[random() % attached.size()];
            io_registry_entry_t entry = registry().addEntry(
                parent, kClasses[random() % 5], kNames[random() % 4], someProperties(random));
            ASSERT_NE(entry, IO_OBJECT_NULL);
            attached.push_back(entry);
        } else if (action < 7) {
            registry().setProperties(attached[random() % attached.size()], someProperties(random));
        } else if (action < 8) {
            registry().removeEntry(attached[random() % attached.size()]);
            std::erase_if(attached,
                          [&](io_registry_entry_t e) { return !registry().isAttached(e); });
        } else {
            for (int query = 0; query < 4; ++query) {
                qv::Value matching = someMatching(random);
                ASSERT_EQ(registry().matchingEntries(matching), bruteForce(matching))
                    << "step " << step << ": " << matching.description();
            }
        }
    }
}

std::vector<io_object_t> drainAll(io_iterator_t iterator) {
    std::vector<io_object_t> items;
    while (io_object_t o = IOIteratorNext(iterator)) {
        items.push_back(o);
        IOObjectRelease(o);
    }
    return items;
}

struct Told {
    std::vector<std::pair<int, std::vector<io_object_t>>>* log;
    int id;
};

void record(void* refCon, io_iterator_t iterator) {
    auto* told = static_cast<Told*>(refCon);
    std::vector<io_object_t> items;
    while (io_object_t o = IOIteratorNext(iterator)) {
        items.push_back(o);
        IOObjectRelease(o);
    }
    told->log->emplace_back(told->id, items);
}

TEST_F(RegistryMatchingIndexTest, NotificationsOfEveryKindAreToldInArmingOrderPerPort) {
    std::vector<std::pair<int, std::vector<io_object_t>>> log;
    IONotificationPortRef first = IONotificationPortCreate(kIOMasterPortDefault);
    IONotificationPortRef second = IONotificationPortCreate(kIOMasterPortDefault);
    for (IONotificationPortRef port : {first, second}) {
        qv::CFRunLoopAddSource(qv::CFRunLoopGetCurrent(), IONotificationPortGetRunLoopSource(port),
                               qv::kCFRunLoopCommonModes);
    }
    qv::Value byIds = IOServiceMatching("IOUSBDevice");
    byIds.set("idVendor", 4817);
    byIds.set("idProduct", 4099);
    qv::Value byRealIds{qv::Dictionary{{"idVendor", 4817.0}, {"idProduct", 4099}}};
    qv::Value byOtherIds = IOServiceMatching("IOUSBDevice");
    byOtherIds.set("idVendor", 4817);
    byOtherIds.set("idProduct", 1);
    // Armed on the second port first, interleaving every kind of dictionary across both ports.
    const std::vector<std::pair<IONotificationPortRef, qv::Value>> armed = {
        {second, IOServiceMatching("IOService")},
        {first, IOServiceNameMatching("Stick")},
        {first, byIds},
        {second, byRealIds},
        {first, IOServiceMatching("IOUSBDevice")},
        {first, qv::Value(qv::Dictionary{})},
        {second, byOtherIds},
        {first, IOServiceMatching("IOMedia")},
        {second, byIds},
    };
    std::vector<std::unique_ptr<Told>> refCons;
    std::vector<io_iterator_t> iterators;
    for (const auto& [port, matching] : armed) {
        refCons.push_back(std::make_unique<Told>(Told{&log, static_cast<int>(refCons.size())}));
        io_iterator_t it = IO_OBJECT_NULL;
        ASSERT_EQ(IOServiceAddMatchingNotification(port, kIOMatchedNotification, matching, record,
                                                   refCons.back().get(), &it),
                  kIOReturnSuccess);
        EXPECT_TRUE(drainAll(it).empty());
        iterators.push_back(it);
    }

    io_registry_entry_t stick =
        registry().addEntry(IO_OBJECT_NULL, "IOUSBDevice", "Stick",
                            qv::Value(qv::Dictionary{{"idVendor", 4817}, {"idProduct", 4099}}));
    loop_->runPending();
    // The first port's notifications in arming order, then the second's; the entry is no
    // IOMedia and not product 1.
    const std::vector<std::pair<int, std::vector<io_object_t>>> expected = {
        {1, {stick}}, {2, {stick}}, {4, {stick}}, {5, {stick}},
        {0, {stick}}, {3, {stick}}, {8, {stick}}};
    EXPECT_EQ(log, expected);

    for (io_iterator_t it : iterators) {
        IOObjectRelease(it);
    }
    IONotificationPortDestroy(first);
    IONotificationPortDestroy(second);
}

}  // namespace
