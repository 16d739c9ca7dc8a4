#include "RunLoop.h"

#include <utility>

#include "GLibRunLoop.h"

namespace qv {

namespace {
thread_local std::shared_ptr<RunLoop> tCurrentLoop;
}

RunLoop& RunLoop::current() {
    return *currentShared();
}

std::shared_ptr<RunLoop> RunLoop::currentShared() {
    if (!tCurrentLoop) {
        tCurrentLoop = std::make_shared<GLibRunLoop>();
    }
    return tCurrentLoop;
}

void RunLoop::setCurrent(std::shared_ptr<RunLoop> loop) {
    tCurrentLoop = std::move(loop);
}

std::shared_ptr<RunLoop> RunLoop::installed() {
    return tCurrentLoop;
}

std::shared_ptr<Timer> RunLoop::performAfterDelay(double delay, std::function<void()> call) {
    return scheduleTimer(delay, false, [call = std::move(call)](Timer&) { call(); });
}

RunLoopSource::RunLoopSource(std::function<void()> perform) : perform_(std::move(perform)) {}

void RunLoopSource::signal() {
    std::shared_ptr<RunLoop> loop = loop_.lock();
    if (!loop) {
        return;
    }
    std::weak_ptr<RunLoopSource> weakSelf = weak_from_this();
    std::weak_ptr<RunLoop> weakLoop = loop;
    loop->post([weakSelf, weakLoop]() {
        auto self = weakSelf.lock();
        auto target = weakLoop.lock();
        // A source removed from its loop after the signal does not perform any more.
        if (self && target && self->loop_.lock() == target && self->perform_) {
            self->perform_();
        }
    });
}

void RunLoop::addSource(const std::shared_ptr<RunLoopSource>& source) {
    if (source) {
        source->loop_ = weak_from_this();
    }
}

void RunLoop::removeSource(const std::shared_ptr<RunLoopSource>& source) {
    if (source && source->loop_.lock().get() == this) {
        source->loop_.reset();
    }
}

bool RunLoop::containsSource(const std::shared_ptr<RunLoopSource>& source) const {
    return source && source->loop_.lock().get() == this;
}

CFRunLoopRef CFRunLoopGetCurrent() {
    return &RunLoop::current();
}

void CFRunLoopAddSource(CFRunLoopRef loop, const CFRunLoopSourceRef& source, const char*) {
    if (loop != nullptr) {
        loop->addSource(source);
    }
}

void CFRunLoopRemoveSource(CFRunLoopRef loop, const CFRunLoopSourceRef& source, const char*) {
    if (loop != nullptr) {
        loop->removeSource(source);
    }
}

}  // namespace qv
