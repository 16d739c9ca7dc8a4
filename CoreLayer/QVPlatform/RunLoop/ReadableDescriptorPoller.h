// qv::ReadableDescriptorPoller: the descriptor watches of a loop that cannot block on them (the
// virtual one). Each pollOnce() asks poll() without waiting which watched descriptors are
// readable, hung up or failed, and calls their callbacks in the order the watches were made.
// Belongs to the loop's thread.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "RunLoop.h"

namespace qv {

class ReadableDescriptorPoller {
  public:
    std::unique_ptr<FileDescriptorWatch> add(int fd, std::function<void()> readable);
    // Calls the callback of every watched descriptor ready now; false when none was.
    bool pollOnce();

  private:
    struct Entry {
        int fd;
        std::function<void()> readable;
        bool active = true;
    };
    class Watch;

    std::vector<std::shared_ptr<Entry>> entries_;
};

}  // namespace qv
