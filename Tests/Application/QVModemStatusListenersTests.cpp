#include "Application/QVModemStatusListeners.h"

#include "ObserverFixture.h"

using Calls = std::vector<std::string>;

class ListenerTest : public ObserverTest {
  protected:
    void SetUp() override {
        ObserverTest::SetUp();
        qv::ApplicationTermination::setHandler([this] { ++terminations_; });
        observer_->noteDeviceBecameAvailable(record(1));
        observer_->setDefaultDevice(0);
        app_.calls.clear();
    }
    void TearDown() override {
        qv::ApplicationTermination::setHandler({});
        ObserverTest::TearDown();
    }
    std::size_t queuedQueries() { return QVPrioQueue::getInstance()->taskCountForTesting(2); }
    int terminations_ = 0;
};

TEST_F(ListenerTest, GroundInitialisationAnswers) {
    for (int code : {10, 13, 19, 11, 12, 18}) {
        groundInitListener(code, observer_.get(), nullptr);
    }
    EXPECT_EQ(terminations_, 0);
    groundInitListener(20, observer_.get(), nullptr);
    EXPECT_EQ(terminations_, 1);
    EXPECT_EQ(queuedQueries(), 0u);

    observer_->setAutorepeatNetInfo(false);
    groundInitListener(7, observer_.get(), nullptr);
    EXPECT_EQ(app_.calls, (Calls{"error 11", "error 12", "error 18", "recognized 1"}));
    EXPECT_TRUE(observer_->autorepeatNetInfo());
    EXPECT_EQ(queuedQueries(), 1u);
}

TEST_F(ListenerTest, NetworkInfoAnswersAndTheRequeryFiveSecondsLater) {
    gsmGetNetworkInfoListener(7, observer_.get(), &answer_, 0);  // not the last answer
    gsmGetNetworkInfoListener(7, observer_.get(), nullptr, 1);
    gsmGetNetworkInfoListener(13, observer_.get(), &answer_, 1);
    for (int failure : {12, 19}) {
        gsmGetNetworkInfoListener(failure, observer_.get(), &answer_, 1);
    }
    EXPECT_TRUE(app_.calls.empty());
    EXPECT_TRUE(observer_->getNetInfo().isNil());
    EXPECT_EQ(countLines("Gsm fatal error. Error get network info"), 2u);

    observer_->setAutorepeatNetInfo(false);
    gsmGetNetworkInfoListener(7, observer_.get(), &answer_, 1);
    EXPECT_EQ(app_.calls, Calls{"netinfo Alpha 1"});
    EXPECT_EQ(observer_->getNetInfo(), answer_);
    EXPECT_FALSE(answer_.isNil()) << "the observer keeps the answer itself";
    EXPECT_EQ(loop_->scheduledTimerCount(), 0u);

    // With auto-repeat the next query leaves through the shared queue five seconds later.
    QVPrioQueue::getInstance()->startExecution();
    observer_->setAutorepeatNetInfo(true);
    std::vector<double> queriedAt;
    gsm_->setObserver(
        [&](const qv::ScriptedGsmBackend::Call&) { queriedAt.push_back(loop_->now()); });
    const double answeredAt = loop_->now();
    gsmGetNetworkInfoListener(7, observer_.get(), &answer_, 1);
    loop_->runUntil(answeredAt + 5.5);
    ASSERT_EQ(queriedAt.size(), 1u);
    EXPECT_DOUBLE_EQ(queriedAt[0] - answeredAt, 5.0);
}

TEST_F(ListenerTest, DeviceInfoAnswers) {
    getDeviceInfoListener(7, observer_.get(), nullptr);
    getDeviceInfoListener(12, observer_.get(), &answer_);
    EXPECT_TRUE(observer_->getDeviceInfo().isNil());

    getDeviceInfoListener(7, observer_.get(), &answer_);
    EXPECT_EQ(observer_->getDeviceInfo(), qv::Value(qv::Dictionary{{"Operator", "Alpha"}}));
    EXPECT_EQ(lines_->back(), "DeviceDict2--> " + observer_->getDeviceInfo().description());
    EXPECT_TRUE(answer_.isNil()) << "the listener releases the library's reference";
}

// An answer can arrive after its observer is gone: it must reach nobody (under the sanitizers a
// stale pointer would be a use after free), while the library's word to quit still ends the
// application, and an observer made later is not mistaken for an unknown context.
TEST_F(ListenerTest, AnswersForADestroyedObserverFindNobody) {
    auto doomed = QVDeviceObserver::create();
    void* const context = doomed.get();
    EXPECT_EQ(QVDeviceObserver::liveObserverFromContext(context), doomed.get());
    doomed.reset();
    EXPECT_EQ(QVDeviceObserver::liveObserverFromContext(context), nullptr);
    int unrelated = 0;
    EXPECT_EQ(QVDeviceObserver::liveObserverFromContext(&unrelated), nullptr);

    groundInitListener(7, context, nullptr);
    groundInitListener(11, context, nullptr);
    getDeviceInfoListener(7, context, &answer_);
    gsmGetNetworkInfoListener(7, context, &answer_, 1);
    EXPECT_TRUE(app_.calls.empty());
    EXPECT_EQ(queuedQueries(), 0u);
    groundInitListener(20, context, nullptr);
    EXPECT_EQ(terminations_, 1);

    EXPECT_EQ(QVDeviceObserver::liveObserverFromContext(observer_.get()), observer_.get());
}
