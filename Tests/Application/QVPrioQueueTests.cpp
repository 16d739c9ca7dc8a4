#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Application/QVPrioQueue.h"
#include "Foundation/Exception.h"
#include "RunLoop/VirtualRunLoop.h"

namespace {

struct Recorder {
    std::vector<std::string> runs;
};

class NamedTask : public QVPrioQueueTask {
  public:
    NamedTask(std::string name, Recorder& recorder) : name_(std::move(name)), recorder_(recorder) {}
    void executeInBackground(QVPrioQueue&) override { recorder_.runs.push_back(name_); }

  private:
    std::string name_;
    Recorder& recorder_;
};

// A task that queues itself again while it runs, as the observer's polling does.
class RequeueingTask : public QVPrioQueueTask, public std::enable_shared_from_this<RequeueingTask> {
  public:
    explicit RequeueingTask(Recorder& recorder) : recorder_(recorder) {}
    void executeInBackground(QVPrioQueue& queue) override {
        recorder_.runs.push_back("again");
        if (recorder_.runs.size() < 3) {
            queue.addTaskDelayed(shared_from_this(), 2);
        }
    }

  private:
    Recorder& recorder_;
};

class PrioQueueTest : public ::testing::Test {
  protected:
    void SetUp() override {
        loop_ = std::make_shared<qv::VirtualRunLoop>();
        qv::RunLoop::setCurrent(loop_);
        queue_ = QVPrioQueue::create();
    }
    void TearDown() override {
        queue_.reset();
        qv::RunLoop::setCurrent(nullptr);
    }
    std::shared_ptr<qv::VirtualRunLoop> loop_;
    std::shared_ptr<QVPrioQueue> queue_;
    Recorder recorder_;
};

TEST_F(PrioQueueTest, OneTaskPerTickByPriorityThenArrival) {
    auto a = std::make_shared<NamedTask>("A", recorder_);
    auto b = std::make_shared<NamedTask>("B", recorder_);
    auto c = std::make_shared<NamedTask>("C", recorder_);
    // Not started: addTask queues without running.
    queue_->addTask(a, 2);
    queue_->addTaskDelayed(b, 0);
    queue_->addTaskDelayed(c, 0);
    loop_->runUntil(5.0);
    EXPECT_TRUE(recorder_.runs.empty());

    queue_->startExecution();
    loop_->runUntil(5.9);
    EXPECT_TRUE(recorder_.runs.empty());
    loop_->runUntil(6.0);
    EXPECT_EQ(recorder_.runs, std::vector<std::string>{"B"});
    loop_->runUntil(8.0);
    EXPECT_EQ(recorder_.runs, (std::vector<std::string>{"B", "C", "A"}));

    // Started: addTask runs one pass at once, without moving the timer's schedule.
    queue_->addTask(b, 1);
    EXPECT_EQ(recorder_.runs.back(), "B");
    EXPECT_EQ(recorder_.runs.size(), 4u);
    queue_->addTaskDelayed(a, 2);
    loop_->runUntil(8.5);
    EXPECT_EQ(recorder_.runs.size(), 4u);
    loop_->runUntil(9.0);
    EXPECT_EQ(recorder_.runs.size(), 5u);

    // Stopped: addTask queues but nothing runs.
    queue_->stopExecution();
    queue_->addTask(c, 0);
    loop_->runUntil(20.0);
    EXPECT_EQ(recorder_.runs.size(), 5u);
    EXPECT_EQ(queue_->taskCountForTesting(0), 1u);
}

TEST_F(PrioQueueTest, RemovalRequeueingAndBadPriorities) {
    auto a = std::make_shared<NamedTask>("A", recorder_);
    queue_->addTaskDelayed(a, 1);
    queue_->addTaskDelayed(a, 1);
    queue_->addTaskDelayed(a, 2);
    queue_->removeTask(a, 0);  // the wrong priority leaves it queued
    EXPECT_EQ(queue_->taskCountForTesting(1), 2u);
    queue_->removeTask(a, 1);  // every occurrence at that priority
    EXPECT_EQ(queue_->taskCountForTesting(1), 0u);
    EXPECT_EQ(queue_->taskCountForTesting(2), 1u);
    queue_->removeAllTasks();
    EXPECT_EQ(queue_->taskCountForTesting(2), 0u);

    auto again = std::make_shared<RequeueingTask>(recorder_);
    queue_->addTaskDelayed(again, 2);
    queue_->startExecution();
    loop_->runUntil(10.0);
    EXPECT_EQ(recorder_.runs, (std::vector<std::string>{"again", "again", "again"}));
    EXPECT_EQ(queue_->taskCountForTesting(2), 0u);

    try {
        queue_->addTask(a, 3);
        FAIL() << "priority 3 accepted";
    } catch (const qv::Exception& e) {
        EXPECT_EQ(e.name(), "NSRangeException");
    }
    EXPECT_THROW(queue_->removeTask(a, -1), qv::Exception);
}

}  // namespace

// Starting twice leaves two timers: two tasks run per second, and stopping ends only the last.
TEST_F(PrioQueueTest, StartingTwiceRunsTwoSchedulers) {
    for (const char* name : {"A", "B", "C", "D", "E", "F"}) {
        queue_->addTaskDelayed(std::make_shared<NamedTask>(name, recorder_), 1);
    }
    queue_->startExecution();
    loop_->runUntil(0.5);
    queue_->startExecution();
    loop_->runUntil(1.0);
    EXPECT_EQ(recorder_.runs, std::vector<std::string>{"A"});
    loop_->runUntil(1.5);
    EXPECT_EQ(recorder_.runs, (std::vector<std::string>{"A", "B"}));
    loop_->runUntil(2.5);
    EXPECT_EQ(recorder_.runs, (std::vector<std::string>{"A", "B", "C", "D"}));
    queue_->stopExecution();
    loop_->runUntil(4.1);
    EXPECT_EQ(recorder_.runs, (std::vector<std::string>{"A", "B", "C", "D", "E", "F"}))
        << "the first timer still runs";
}
