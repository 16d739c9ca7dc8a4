#include "Events/QVDeviceNotificationCenter.h"

#include <algorithm>
#include <functional>

#include "DeviceEventsFixture.h"
#include "Foundation/Exception.h"

namespace {

// Records every batch as the location IDs of its snapshots.
class RecordingObserver : public QVDeviceNotificationObserver {
  public:
    void devicesAdded(const QVIODeviceArray& devices) override { record(added, devices); }
    void devicesRemoved(const QVIODeviceArray& devices) override { record(removed, devices); }

    std::vector<std::vector<int>> added;
    std::vector<std::vector<int>> removed;
    std::function<void()> onCall;

  private:
    void record(std::vector<std::vector<int>>& into, const QVIODeviceArray& devices) {
        std::vector<int> batch;
        for (const auto& device : devices) {
            batch.push_back(device->locationId().intValue());
        }
        into.push_back(batch);
        if (onCall) {
            onCall();
        }
    }
};

class CenterTest : public DeviceEventsTest {
  protected:
    std::shared_ptr<QVDeviceNotificationCenter> center() {
        return QVDeviceNotificationCenter::defaultDeviceNotificationCenter();
    }
    static qv::Value stickMatching() {
        qv::Value matching = IOServiceMatching("IOUSBDevice");
        matching.set("idVendor", 4817);
        matching.set("idProduct", 4099);
        return matching;
    }
    void subscribe(const std::shared_ptr<RecordingObserver>& observer,
                   const qv::Value& matching = stickMatching()) {
        center()->addObserver(observer, &QVDeviceNotificationObserver::devicesAdded,
                              kQVDeviceAddedNotification, matching);
        center()->addObserver(observer, &QVDeviceNotificationObserver::devicesRemoved,
                              kQVDeviceRemovedNotification, matching);
    }
    using Batches = std::vector<std::vector<int>>;
};

TEST_F(CenterTest, ObserversOfAKeyGetBatchesInOrder) {
    io_registry_entry_t first = addUsb(4817, 4099, 1);
    addUsb(4817, 4099, 2);
    addUsb(4817, 5000, 3);  // another product: another key
    auto one = std::make_shared<RecordingObserver>();
    subscribe(one);
    EXPECT_EQ(one->added, (Batches{{1, 2}}));
    EXPECT_TRUE(one->removed.empty());

    // The second observer of the key learns what is present at once; no second notification is
    // armed, so later batches reach each observer once.
    auto two = std::make_shared<RecordingObserver>();
    subscribe(two);
    EXPECT_EQ(two->added, (Batches{{1, 2}}));
    EXPECT_EQ(center()->observerCountForTesting("DeviceAdded_4817_4099"), 2u);

    addUsb(4817, 4099, 4);
    addUsb(4817, 4099, 5);
    addUsb(6610, 49, 6);
    EXPECT_EQ(one->added.size(), 1u);  // nothing from inside the registry change
    loop_->runPending();
    EXPECT_EQ(one->added, (Batches{{1, 2}, {4, 5}}));
    EXPECT_EQ(two->added, (Batches{{1, 2}, {4, 5}}));

    registry().removeEntry(first);
    loop_->runPending();
    EXPECT_EQ(one->removed, (Batches{{1}}));
    EXPECT_EQ(two->removed, (Batches{{1}}));
    EXPECT_EQ(std::count(lines_->begin(), lines_->end(), "Device Added Notification from IOKit"),
              1);
    EXPECT_EQ(std::count(lines_->begin(), lines_->end(), "Device Removed Notification from IOKit"),
              1);

    // With nothing attached the newcomer is still called, with an empty batch.
    auto lonely = std::make_shared<RecordingObserver>();
    qv::Value nothing = IOServiceMatching("IOUSBDevice");
    nothing.set("idVendor", 1);
    subscribe(lonely, nothing);
    EXPECT_EQ(lonely->added, (Batches{{}}));
}

TEST_F(CenterTest, KeysAndMalformedSubscriptions) {
    using Center = QVDeviceNotificationCenter;
    qv::Value dict = IOServiceMatching("IOUSBDevice");
    EXPECT_EQ(Center::notifSuffixForMatchingDict(dict), "");
    dict.set("idProduct", 7957);
    EXPECT_EQ(Center::notifSuffixForMatchingDict(dict), "_7957");
    dict.set("idVendor", 4817);
    EXPECT_EQ(Center::notifSuffixForMatchingDict(dict), "4817_7957");
    dict.set("idVendor", "");
    dict.set("idProduct", qv::Array{});
    EXPECT_EQ(Center::notifSuffixForMatchingDict(dict), "");

    // Dictionaries that differ only in the class share one key.
    addUsb(4817, 7957, 1);
    qv::Value other = IOServiceMatching("IOService");
    other.set("idVendor", 4817);
    other.set("idProduct", 7957);
    auto a = std::make_shared<RecordingObserver>();
    auto b = std::make_shared<RecordingObserver>();
    qv::Value usb = IOServiceMatching("IOUSBDevice");
    usb.set("idVendor", 4817);
    usb.set("idProduct", 7957);
    subscribe(a, usb);
    subscribe(b, other);
    EXPECT_EQ(center()->observerCountForTesting("DeviceAdded_4817_7957"), 2u);
    EXPECT_EQ(center()->observerCountForTesting("DeviceRemoved_4817_7957"), 2u);

    // A service name is its own suffix and matches by name.
    auto named = std::make_shared<RecordingObserver>();
    add(IO_OBJECT_NULL, "IOCDMedia", {}, "Driver CD");
    subscribe(named, qv::Value("Driver CD"));
    EXPECT_EQ(center()->observerCountForTesting("DeviceAdded_Driver CD"), 1u);
    EXPECT_EQ(named->added.size(), 1u);
    EXPECT_EQ(named->added[0].size(), 1u);

    auto raises = [&](const qv::Value& info, const std::string& name, const char* exception,
                      const char* reason) {
        try {
            center()->addObserver(a, &QVDeviceNotificationObserver::devicesAdded, name, info);
            ADD_FAILURE() << "no exception for " << reason;
        } catch (const qv::Exception& e) {
            EXPECT_EQ(e.name(), exception);
            EXPECT_EQ(e.reason(), reason);
        }
    };
    center()->removeAllNotifications();
    raises({}, "DeviceAdded", "NSException", "Invalid match info");
    raises(qv::Value(qv::Array{qv::Value(1)}), "DeviceAdded", "NSException",
           "Invalid format of match info");
    raises(qv::Value(4817), "DeviceAdded", "NSException", "Invalid format of match info");
    EXPECT_FALSE(center()->hasNotificationPortForTesting());
    raises(usb, "DeviceChanged", "NSException", "Invalid notification name");
    EXPECT_TRUE(center()->hasNotificationPortForTesting());
}

TEST_F(CenterTest, TearDownDuringDeliveryAndAFreshStart) {
    auto first = std::make_shared<RecordingObserver>();
    auto second = std::make_shared<RecordingObserver>();
    subscribe(first);
    subscribe(second);

    // Unsubscribing one observer does nothing: both keep receiving.
    first->onCall = [&] { center()->removeObserver(first, "DeviceAdded", stickMatching()); };
    addUsb(4817, 4099, 1);
    loop_->runPending();
    EXPECT_EQ(second->added, (Batches{{}, {1}}));

    // Tearing the center down from inside a delivery: the rest of the batch goes to nobody.
    first->onCall = [&] { center()->removeAllNotifications(); };
    io_registry_entry_t stick = addUsb(4817, 4099, 2);
    loop_->runPending();
    EXPECT_EQ(first->added, (Batches{{}, {1}, {2}}));
    EXPECT_EQ(second->added, (Batches{{}, {1}}));
    first->onCall = nullptr;
    registry().removeEntry(stick);
    addUsb(4817, 4099, 3);
    loop_->runPending();
    EXPECT_TRUE(first->removed.empty());
    EXPECT_EQ(first->added.size(), 3u);

    // A later subscription starts over with a new port.
    auto late = std::make_shared<RecordingObserver>();
    subscribe(late);
    EXPECT_EQ(late->added, (Batches{{1, 3}}));
    addUsb(4817, 4099, 4);
    loop_->runPending();
    EXPECT_EQ(late->added, (Batches{{1, 3}, {4}}));
    EXPECT_EQ(first->added.size(), 3u);
}

}  // namespace
