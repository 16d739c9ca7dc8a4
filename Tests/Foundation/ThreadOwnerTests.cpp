// The one-thread rule's debug check: who owns an object, when ownership passes on, what a foreign
// call does in a checked build, and that the registry and the receivers are wired to it.
#include "Foundation/ThreadOwner.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "Events/QVDeviceNotificationReceiver.h"
#include "IOKit/Registry.h"

namespace {

bool claimOnANewThread(qv::ThreadOwner& owner) {
    bool claimed = false;
    std::thread([&] { claimed = owner.claim(); }).join();
    return claimed;
}

TEST(ThreadOwner, TheFirstUserOwnsItWhileItRunsThenReleaseOrItsEndPassItOn) {
    qv::ThreadOwner owner("Thing");
    EXPECT_TRUE(owner.claim());
    EXPECT_TRUE(owner.claim());
    EXPECT_FALSE(claimOnANewThread(owner));
    EXPECT_TRUE(owner.claim()) << "a refused thread must not take the object over";

    // Released, the next thread to come owns it, and this one is refused while it runs.
    owner.release();
    std::promise<void> claimed;
    std::promise<void> finish;
    bool otherClaimed = false;
    std::thread other([&] {
        otherClaimed = owner.claim();
        claimed.set_value();
        finish.get_future().wait();
    });
    claimed.get_future().wait();
    EXPECT_TRUE(otherClaimed);
    EXPECT_FALSE(owner.claim());
    finish.set_value();
    other.join();

    // That thread has ended: the first caller after it owns the object.
    EXPECT_TRUE(owner.claim());
    EXPECT_FALSE(claimOnANewThread(owner));
}

TEST(ThreadOwnerDeathTest, EnforceAbortsOnAForeignThreadNamingTheObjectTheCallAndBothThreads) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    qv::ThreadOwner owner("Registry");
    owner.enforce("addEntry");  // the owner passes
    EXPECT_DEATH(
        {
            owner.enforce("addEntry");
            std::thread([&] { owner.enforce("removeEntry"); }).join();
        },
        "Registry::removeEntry called on thread [0-9]+, but the Registry belongs to thread "
        "[0-9]+");
}

// The registry and every receiver check their callers in checked builds; elsewhere a foreign call
// goes through unchecked (the rule costs nothing there).
TEST(ThreadOwnerDeathTest, TheRegistryAndTheReceiversCheckTheirCallersInCheckedBuilds) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    qv::Registry registry;
    QVDeviceNotificationReceiver receiver;
    const io_registry_entry_t root = registry.root();
    EXPECT_TRUE(registry.isEntry(root));
    receiver.removeDevice(nullptr);
#if QV_THREAD_CHECKS
    EXPECT_DEATH(std::thread([&] { registry.isEntry(root); }).join(),
                 "Registry::isEntry called on thread [0-9]+, but the Registry belongs to thread");
    EXPECT_DEATH(std::thread([&] { receiver.removeDevice(nullptr); }).join(),
                 "QVDeviceNotificationReceiver::removeDevice called on thread [0-9]+");
#else
    bool answered = false;
    std::thread([&] {
        answered = registry.isEntry(root);
        receiver.removeDevice(nullptr);
    }).join();
    EXPECT_TRUE(answered);
#endif
}

}  // namespace
