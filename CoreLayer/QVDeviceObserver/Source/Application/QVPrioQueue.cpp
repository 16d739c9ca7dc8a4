#include "QVPrioQueue.h"

#include <algorithm>

#include "Foundation/Exception.h"
#include "Foundation/Format.h"

namespace {

std::shared_ptr<QVPrioQueue>& sharedQueue() {
    static std::shared_ptr<QVPrioQueue> instance;
    return instance;
}

}  // namespace

std::shared_ptr<QVPrioQueue> QVPrioQueue::getInstance() {
    auto& instance = sharedQueue();
    if (!instance) {
        instance = create();
    }
    return instance;
}

void QVPrioQueue::resetSharedForTesting() {
    if (auto& instance = sharedQueue()) {
        instance->stopExecution();
        instance.reset();
    }
}

std::shared_ptr<QVPrioQueue> QVPrioQueue::create() {
    return std::shared_ptr<QVPrioQueue>(new QVPrioQueue());
}

QVPrioQueue::~QVPrioQueue() {
    stopExecution();
}

void QVPrioQueue::startExecution() {
    std::weak_ptr<QVPrioQueue> weakSelf = weak_from_this();
    _schedulerTimer = qv::RunLoop::current().scheduleTimer(1.0, true, [weakSelf](qv::Timer&) {
        if (auto self = weakSelf.lock()) {
            self->scheduler();
        }
    });
}

void QVPrioQueue::stopExecution() {
    if (_schedulerTimer && _schedulerTimer->isValid()) {
        _schedulerTimer->invalidate();
    }
}

std::deque<std::shared_ptr<QVPrioQueueTask>>& QVPrioQueue::listFor(int prio) {
    if (prio < 0 || prio >= kPriorityCount) {
        throw qv::Exception(
            "NSRangeException",
            qv::format("*** -[NSCFArray objectAtIndex:]: index (%u) beyond bounds (%d)",
                       static_cast<unsigned>(prio), kPriorityCount));
    }
    return _tasksByPrio[static_cast<std::size_t>(prio)];
}

void QVPrioQueue::addTaskDelayed(std::shared_ptr<QVPrioQueueTask> task, int prio) {
    listFor(prio).push_back(std::move(task));
}

void QVPrioQueue::addTask(std::shared_ptr<QVPrioQueueTask> task, int prio) {
    addTaskDelayed(std::move(task), prio);
    // An extra firing now; the timer's own schedule is unchanged. Not started: the task waits.
    if (_schedulerTimer && _schedulerTimer->isValid()) {
        _schedulerTimer->fire();
    }
}

void QVPrioQueue::removeTask(const std::shared_ptr<QVPrioQueueTask>& task, int prio) {
    auto& list = listFor(prio);
    list.erase(std::remove(list.begin(), list.end(), task), list.end());
}

void QVPrioQueue::removeAllTasks() {
    for (auto& list : _tasksByPrio) {
        list.clear();
    }
}

void QVPrioQueue::scheduler() {
    for (auto& list : _tasksByPrio) {
        if (list.empty()) {
            continue;
        }
        // Run first, remove after: a task may queue itself again while it runs.
        std::shared_ptr<QVPrioQueueTask> task = list.front();
        task->executeInBackground(*this);
        // A task that emptied its own list while it ran leaves nothing to take out, where an
        // array would have raised.
        if (!list.empty()) {
            list.pop_front();
        }
        return;
    }
}

std::size_t QVPrioQueue::taskCountForTesting(int prio) const {
    return _tasksByPrio.at(static_cast<std::size_t>(prio)).size();
}
