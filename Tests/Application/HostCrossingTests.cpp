// What crosses from the framework's thread to the host's: calls posted to the host's context in
// order, dropped after close, and device records that the host owns on its own.
#include <glib.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Application/HostCallQueue.h"
#include "Application/HostDelegateRelay.h"
#include "Foundation/Logging.h"
#include "Model/QVCapabilitySet.h"
#include "Model/QVDevice.h"
#include "Model/QVSerialInterface.h"
#include "Model/QVUSBDevice.h"

namespace {

class HostCrossing : public ::testing::Test {
  protected:
    void SetUp() override {
        context_ = g_main_context_new();
        qv::setSystemLogSink([this](const std::string& line) { systemLog_.push_back(line); });
    }
    void TearDown() override {
        qv::setSystemLogSink({});
        // Sources still attached are dropped with the context.
        g_main_context_unref(context_);
    }
    // Runs what the host's context has ready now, as a turn of the host's loop would.
    void turnHost() {
        while (g_main_context_iteration(context_, FALSE)) {
        }
    }

    GMainContext* context_ = nullptr;
    std::vector<std::string> systemLog_;
};

TEST_F(HostCrossing, CallsFromManyThreadsRunOnTheHostInEachThreadsOrderAndNotAfterClose) {
    auto queue = qv::HostCallQueue::create(context_);
    constexpr int kThreads = 4;
    constexpr int kCalls = 200;  // more than one turn's share, so the queue spans turns
    std::vector<std::vector<int>> seen(kThreads);
    std::vector<std::thread::id> threads;
    std::vector<std::thread> posters;
    for (int t = 0; t < kThreads; ++t) {
        posters.emplace_back([&, t] {
            for (int i = 0; i < kCalls; ++i) {
                queue->post([&, t, i] {
                    seen[static_cast<std::size_t>(t)].push_back(i);
                    threads.push_back(std::this_thread::get_id());
                });
            }
        });
    }
    for (auto& poster : posters) {
        poster.join();
    }
    // Nothing runs on the posting threads: only the host's turn makes the calls.
    EXPECT_TRUE(threads.empty());
    turnHost();
    for (int t = 0; t < kThreads; ++t) {
        ASSERT_EQ(seen[static_cast<std::size_t>(t)].size(), static_cast<std::size_t>(kCalls));
        for (int i = 0; i < kCalls; ++i) {
            EXPECT_EQ(seen[static_cast<std::size_t>(t)][static_cast<std::size_t>(i)], i);
        }
    }
    for (std::thread::id thread : threads) {
        EXPECT_EQ(thread, std::this_thread::get_id());
    }

    // A call that throws is logged and the next one still runs; a call that closes the queue
    // ends the run there.
    std::vector<std::string> order;
    queue->post([] { throw std::runtime_error("delegate failed"); });
    queue->post([&] { order.push_back("after the throw"); });
    queue->post([&] {
        order.push_back("closing");
        queue->close();
    });
    queue->post([&] { order.push_back("after close"); });
    turnHost();
    EXPECT_EQ(order, (std::vector<std::string>{"after the throw", "closing"}));
    ASSERT_EQ(systemLog_.size(), 1u);
    EXPECT_NE(systemLog_[0].find("delegate failed"), std::string::npos);
    queue->post([&] { order.push_back("posted after close"); });
    turnHost();
    EXPECT_EQ(order.size(), 2u);
    EXPECT_TRUE(queue->isClosed());
}

std::shared_ptr<QVUSBDevice> recognisedStick() {
    auto device = std::make_shared<QVUSBDevice>();
    device->setQuorvelID(5060);
    device->setUUID(qv::Value(static_cast<long long>(0x01500000)));
    device->setProductName(std::string("MC8780"));
    device->setVendorID(0x1199);
    device->setProductID(0x6832);
    device->setDriverBundle(std::string("sierra"));
    device->addInterface(QVSerialInterface::portWithCapabilities(QVCapabilitySet({"DataTransport"}),
                                                                 "/dev/cu.ttyUSB0"));
    device->addInterface(QVSerialInterface::portWithCapabilities(QVCapabilitySet({"NetworkQuery"}),
                                                                 "/dev/cu.ttyUSB2"));
    device->setAvailable(true);
    return device;
}

class RecordingHost : public QVDeviceObserverDelegate {
  public:
    void noteDeviceBecameAvailable(const std::shared_ptr<QVDevice>& device) override {
        devices.push_back(device);
        calls.push_back("available");
    }
    void noteDeviceBecameMissing(const std::shared_ptr<QVDevice>& device) override {
        devices.push_back(device);
        calls.push_back(std::string("missing, available ") +
                        (device->isAvailable() ? "YES" : "NO"));
    }
    void noteDeviceRecognitionError(int code) override {
        calls.push_back("error " + std::to_string(code));
    }
    void noteNetworkInfoDidUpdate(const qv::Value& info,
                                  const std::shared_ptr<QVDevice>& sender) override {
        devices.push_back(sender);
        calls.push_back("network " + info.description());
    }
    std::vector<std::shared_ptr<QVDevice>> devices;
    std::vector<std::string> calls;
};

TEST_F(HostCrossing, TheHostKeepsItsOwnCopyOfAUnitFromArrivalToRemoval) {
    auto queue = qv::HostCallQueue::create(context_);
    RecordingHost host;
    qv::HostDelegateRelay relay(&host, queue);
    auto framework = recognisedStick();

    relay.noteDeviceBecameAvailable(framework);
    qv::Dictionary info;
    info.set("operator", qv::Value("Net One"));
    relay.noteNetworkInfoDidUpdate(qv::Value(info), framework);
    // What the framework changes after a call does not reach the copy the call carried.
    framework->setProductName(std::string("renamed later"));
    relay.noteDeviceRecognitionError(11);
    framework->setAvailable(false);
    relay.noteDeviceBecameMissing(framework);
    EXPECT_TRUE(host.calls.empty());  // nothing before the host's loop turns
    turnHost();

    EXPECT_EQ(host.calls,
              (std::vector<std::string>{"available", "network {\n    operator = \"Net One\";\n}",
                                        "error 11", "missing, available NO"}));
    ASSERT_EQ(host.devices.size(), 3u);
    const auto& copy = host.devices[0];
    EXPECT_NE(copy.get(), framework.get());
    EXPECT_EQ(host.devices[1], copy);  // the network sender is the host's same object
    EXPECT_EQ(host.devices[2], copy);  // and so is the unit that went missing
    EXPECT_EQ(copy->productName(), "MC8780");
    EXPECT_EQ(copy->quorvelID(), 5060);
    EXPECT_EQ(copy->driverBundle(), "sierra");
    EXPECT_TRUE(copy->isEqual(*framework));
    auto usb = std::dynamic_pointer_cast<QVUSBDevice>(copy);
    ASSERT_NE(usb, nullptr);
    EXPECT_EQ(usb->vendorID(), 0x1199);
    // The interfaces are the host's own objects with the same content.
    ASSERT_EQ(copy->interfaces().size(), 2u);
    for (std::size_t i = 0; i < 2; ++i) {
        EXPECT_NE(copy->interfaces()[i].get(), framework->interfaces()[i].get());
        EXPECT_TRUE(copy->interfaces()[i]->isEqual(*framework->interfaces()[i]));
    }
    ASSERT_NE(copy->portWithCapability("NetworkQuery"), nullptr);
    EXPECT_EQ(copy->portWithCapability("NetworkQuery")->path(), "/dev/cu.ttyUSB2");

    // The same framework record announced again after its removal is a new unit for the host.
    framework->setAvailable(true);
    relay.noteDeviceBecameAvailable(framework);
    turnHost();
    ASSERT_EQ(host.devices.size(), 4u);
    EXPECT_NE(host.devices[3], copy);
    EXPECT_EQ(host.devices[3]->productName(), "renamed later");
}

}  // namespace
