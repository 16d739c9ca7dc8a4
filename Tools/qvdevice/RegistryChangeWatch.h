// qvdevice::RegistryChangeWatch: calls back on a GLib run loop whenever the device registry has
// changed since the last call. It looks at the registry's change stamp once per turn of the loop,
// before the loop waits, so a change is seen in the turn after the one that made it and the loop
// never wakes up for the watch alone.
#pragma once

#include <cstdint>
#include <functional>

#include "IOKit/Registry.h"
#include "RunLoop/GLibRunLoop.h"

typedef struct _GSource GSource;

namespace qvdevice {

class RegistryChangeWatch {
  public:
    RegistryChangeWatch(qv::GLibRunLoop& loop, const qv::Registry& registry,
                        std::function<void()> changed);
    ~RegistryChangeWatch();
    RegistryChangeWatch(const RegistryChangeWatch&) = delete;
    RegistryChangeWatch& operator=(const RegistryChangeWatch&) = delete;

    // Calls back now when the registry changed since the last call.
    void check();

    // The GLib source behind the watch (its callbacks need a name outside the class).
    struct Source;

  private:
    bool hasChanged() const;

    const qv::Registry& registry_;
    std::function<void()> changed_;
    std::uint64_t seen_ = 0;
    GSource* source_ = nullptr;
};

}  // namespace qvdevice
