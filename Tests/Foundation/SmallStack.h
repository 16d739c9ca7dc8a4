// Runs a function on a thread with a small stack (1 MB; 8 MB under the address sanitizer, whose
// frames are several times larger), so that a test of hostile nesting fails by crashing when
// anything on the way recurses without a bound, whatever the main thread's stack limit. A bounded
// parser needs a few hundred frames; an unbounded one facing 100,000 levels overflows either size.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <functional>

namespace qv {

#if defined(__SANITIZE_ADDRESS__)
inline constexpr std::size_t kSmallStackBytes = 8 * 1024 * 1024;
#else
inline constexpr std::size_t kSmallStackBytes = 1024 * 1024;
#endif

inline void runOnSmallStack(const std::function<void()>& body) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, kSmallStackBytes);
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
