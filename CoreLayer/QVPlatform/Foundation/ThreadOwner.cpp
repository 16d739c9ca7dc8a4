#include "Foundation/ThreadOwner.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace qv {

namespace {

// One per thread, alive while the thread runs: an owner whose token has expired has ended.
struct ThreadToken {
    pid_t threadID = gettid();
};

// Trivially destructible, so still readable while the thread's other thread_local objects are
// destroyed (a receiver let go by a thread_local during thread exit).
thread_local bool tThreadEnding = false;

struct TokenHolder {
    std::shared_ptr<const ThreadToken> token = std::make_shared<const ThreadToken>();
    ~TokenHolder() { tThreadEnding = true; }
};

// Null once the thread has started ending.
std::shared_ptr<const ThreadToken> currentThreadToken() {
    if (tThreadEnding) {
        return nullptr;
    }
    thread_local TokenHolder holder;
    return holder.token;
}

}  // namespace

bool ThreadOwner::claim() {
    std::shared_ptr<const ThreadToken> current = currentThreadToken();
    if (!current) {
        return true;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    std::shared_ptr<const void> owner = owner_.lock();
    if (!owner) {
        owner_ = current;
        ownerThreadID_ = current->threadID;
        return true;
    }
    return owner == current;
}

void ThreadOwner::release() {
    std::lock_guard<std::mutex> lock(mutex_);
    owner_.reset();
    ownerThreadID_ = 0;
}

void ThreadOwner::enforce(const char* operation) {
    if (claim()) {
        return;
    }
    pid_t owner = 0;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        owner = ownerThreadID_;
    }
    // Only literals and numbers: nothing from outside reaches this text.
    std::fprintf(stderr,
                 "%s::%s called on thread %ld, but the %s belongs to thread %ld (the first to use "
                 "it) and must only be used from that thread\n",
                 objectName_, operation, static_cast<long>(gettid()), objectName_,
                 static_cast<long>(owner));
    std::fflush(stderr);
    std::abort();
}

}  // namespace qv
