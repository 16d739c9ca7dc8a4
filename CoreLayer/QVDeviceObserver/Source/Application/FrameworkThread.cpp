#include "Application/FrameworkThread.h"

#include <cmath>
#include <exception>
#include <future>
#include <string>
#include <utility>

#include "Application/HostCallQueue.h"
#include "Application/HostDelegateRelay.h"
#include "Application/QVDeviceObserver.h"
#include "Application/QVPrioQueue.h"
#include "Foundation/Logging.h"
#include "RunLoop/GLibRunLoop.h"

namespace qv {

namespace {

// The observer is the process's one: a second thread would run it from two threads at once.
std::atomic<bool> gThreadRunning{false};

void logFailure(const char* what, const std::exception_ptr& failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const std::exception& error) {
        logRecognition("Framework thread: %s failed: %s", std::string(what),
                       std::string(error.what()));
    } catch (...) {
        logRecognition("Framework thread: %s failed", std::string(what));
    }
}

}  // namespace

std::unique_ptr<FrameworkThread> FrameworkThread::start(QVDeviceObserverDelegate* delegate,
                                                        GMainContext* hostContext) {
    if (gThreadRunning.exchange(true)) {
        logRecognition("A framework thread runs already: the observer is shared by the process");
        return nullptr;
    }
    std::unique_ptr<FrameworkThread> framework(new FrameworkThread(delegate, hostContext));
    std::promise<void> started;
    std::future<void> ready = started.get_future();
    FrameworkThread* self = framework.get();
    framework->thread_ =
        std::thread([self, &started] { self->run([&started] { started.set_value(); }); });
    ready.wait();
    return framework;
}

FrameworkThread::FrameworkThread(QVDeviceObserverDelegate* delegate, GMainContext* hostContext)
    : hostCalls_(HostCallQueue::create(hostContext)),
      relay_(std::make_unique<HostDelegateRelay>(delegate, hostCalls_)) {}

FrameworkThread::~FrameworkThread() {
    stop();
}

void FrameworkThread::run(std::function<void()> started) {
    GMainContext* context = g_main_context_new();
    g_main_context_push_thread_default(context);
    auto loop = std::make_shared<GLibRunLoop>(context);
    RunLoop::setCurrent(loop);
    loop_ = loop;
    try {
        std::shared_ptr<QVDeviceObserver> observer = QVDeviceObserver::getInstance();
        observer->setDelegate(relay_.get());
        observer->start();
        QVPrioQueue::getInstance()->startExecution();
    } catch (...) {
        logFailure("starting the observer", std::current_exception());
    }
    started();

    // A callback that throws ends one run of the loop, not the framework.
    while (!quit_.load()) {
        try {
            loop->runUntil(INFINITY);
        } catch (...) {
            logFailure("a callback", std::current_exception());
        }
    }

    RunLoop::setCurrent(nullptr);
    loop.reset();
    g_main_context_pop_thread_default(context);
    g_main_context_unref(context);
}

void FrameworkThread::perform(std::function<void(QVDeviceObserver&)> work) {
    if (!work || !thread_.joinable() || quit_.load()) {
        return;
    }
    loop_->post([work = std::move(work)] { work(*QVDeviceObserver::getInstance()); });
}

void FrameworkThread::stop() {
    if (!thread_.joinable()) {
        return;
    }
    if (std::this_thread::get_id() == thread_.get_id()) {
        logRecognition(
            "FrameworkThread::stop from the framework's own thread: call it on the host");
        return;
    }
    // No delegate call of this run reaches the host any more, also those already queued.
    hostCalls_->close();
    loop_->post([this] {
        try {
            std::shared_ptr<QVDeviceObserver> observer = QVDeviceObserver::getInstance();
            observer->setDelegate(nullptr);
            observer->stop();
            QVPrioQueue::getInstance()->stopExecution();
        } catch (...) {
            logFailure("stopping the observer", std::current_exception());
        }
        quit_.store(true);
        RunLoop::current().stop();
    });
    thread_.join();
    loop_.reset();
    gThreadRunning.store(false);
}

}  // namespace qv
