// qv::ThreadOwner: the debug check of a "one thread only" rule. An object that belongs to one
// thread keeps one and calls check() on entry to its operations. The first thread to call becomes
// the owner for as long as it runs (or until release()); a call from another thread meanwhile
// aborts the process with a message naming the object, the operation and both threads.
//
// The owner is the first user rather than the creator because objects are made on one thread and
// used on another (a test's fixture resets the registry that a framework thread then feeds), and
// one object may serve several threads in turn (a framework thread stopped and started again).
//
// Checks run where QV_THREAD_CHECKS is 1: by default in builds without NDEBUG. Elsewhere check()
// is an empty inline function. claim() and enforce() work in every build, for tests.
#pragma once

#include <sys/types.h>

#include <memory>
#include <mutex>

#ifndef QV_THREAD_CHECKS
#ifdef NDEBUG
#define QV_THREAD_CHECKS 0
#else
#define QV_THREAD_CHECKS 1
#endif
#endif

namespace qv {

class ThreadOwner {
  public:
    // `objectName` names the owning object in the message; a string literal.
    explicit ThreadOwner(const char* objectName) : objectName_(objectName) {}
    ThreadOwner(const ThreadOwner&) = delete;
    ThreadOwner& operator=(const ThreadOwner&) = delete;

    // The calling thread becomes the owner when there is none (never was, released, or the owner
    // thread has ended). True when the caller owns the object afterwards; a thread that is being
    // torn down counts as the owner (it can no longer be told apart).
    bool claim();
    // Forgets the owner: the next thread to call claim() or check() owns the object.
    void release();
    // claim(), aborting the process when it fails. `operation` is a string literal (__func__).
    void enforce(const char* operation);

    void check(const char* operation) {
#if QV_THREAD_CHECKS
        enforce(operation);
#else
        (void)operation;
#endif
    }

  private:
    const char* objectName_;
    std::mutex mutex_;
    // The owner thread's token, which expires when that thread ends.
    std::weak_ptr<const void> owner_;
    pid_t ownerThreadID_ = 0;
};

}  // namespace qv
