// Runs a function on a thread with a small stack (1 MB), so that a test of hostile nesting
// fails by crashing when anything on the way recurses without a bound, whatever the main
// thread's stack limit.
#pragma once

#include <pthread.h>

#include <functional>

namespace qv {

inline void runOnSmallStack(const std::function<void()>& body) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, 1024 * 1024);
    pthread_t thread;
    auto trampoline = [](void* argument) -> void* {
        (*static_cast<const std::function<void()>*>(argument))();
        return nullptr;
    };
    if (pthread_create(&thread, &attributes, trampoline,
                       const_cast<std::function<void()>*>(&body)) == 0) {
        pthread_join(thread, nullptr);
    } else {
        body();
    }
    pthread_attr_destroy(&attributes);
}

}  // namespace qv
