// QVPrioQueue: a small shared scheduler that runs queued tasks one at a time, highest priority
// (0) first, on the thread whose run loop carries its one-second timer. The application starts it;
// the observer queues its network queries on it.
#pragma once

#include <array>
#include <deque>
#include <memory>

#include "Foundation/Object.h"
#include "RunLoop/RunLoop.h"

class QVPrioQueue;

// Anything the queue can run.
class QVPrioQueueTask {
  public:
    virtual ~QVPrioQueueTask() = default;
    virtual void executeInBackground(QVPrioQueue& queue) = 0;
};

class QVPrioQueue : public qv::Object, public std::enable_shared_from_this<QVPrioQueue> {
  public:
    static constexpr int kPriorityCount = 3;

    static std::shared_ptr<QVPrioQueue> getInstance();
    static std::shared_ptr<QVPrioQueue> create();
    // Stops and forgets the shared queue, so that the next story starts with a fresh one.
    static void resetSharedForTesting();
    ~QVPrioQueue() override;

    // Schedules a new repeating 1.0 s timer on the current run loop. A second call leaves two
    // timers running, as the application asked for.
    void startExecution();
    void stopExecution();

    // A priority outside 0..2 raises NSRangeException, as the original's array access did.
    void addTaskDelayed(std::shared_ptr<QVPrioQueueTask> task, int prio);
    // Queues, then runs one scheduler pass at once when the queue is started.
    void addTask(std::shared_ptr<QVPrioQueueTask> task, int prio);
    void removeTask(const std::shared_ptr<QVPrioQueueTask>& task, int prio);
    void removeAllTasks();

    // One pass: runs the first task of the highest non-empty priority, then removes that entry.
    void scheduler();

    std::size_t taskCountForTesting(int prio) const;

  private:
    QVPrioQueue() = default;
    std::deque<std::shared_ptr<QVPrioQueueTask>>& listFor(int prio);

    std::array<std::deque<std::shared_ptr<QVPrioQueueTask>>, kPriorityCount> _tasksByPrio;
    std::shared_ptr<qv::Timer> _schedulerTimer;
};
