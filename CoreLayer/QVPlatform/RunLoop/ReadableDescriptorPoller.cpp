#include "ReadableDescriptorPoller.h"

#include <poll.h>

#include <algorithm>
#include <utility>

namespace qv {

class ReadableDescriptorPoller::Watch : public FileDescriptorWatch {
  public:
    explicit Watch(std::shared_ptr<Entry> entry) : entry_(std::move(entry)) {}
    // The poller may be gone already: the entry is shared, and only marked here.
    ~Watch() override { entry_->active = false; }

  private:
    std::shared_ptr<Entry> entry_;
};

std::unique_ptr<FileDescriptorWatch> ReadableDescriptorPoller::add(int fd,
                                                                   std::function<void()> readable) {
    if (fd < 0) {
        return nullptr;
    }
    auto entry = std::make_shared<Entry>(Entry{fd, std::move(readable)});
    entries_.push_back(entry);
    return std::make_unique<Watch>(std::move(entry));
}

bool ReadableDescriptorPoller::pollOnce() {
    std::erase_if(entries_, [](const auto& entry) { return !entry->active; });
    if (entries_.empty()) {
        return false;
    }
    // A copy: a callback may add or end watches.
    std::vector<std::shared_ptr<Entry>> watched = entries_;
    std::vector<pollfd> fds;
    fds.reserve(watched.size());
    for (const auto& entry : watched) {
        fds.push_back({entry->fd, POLLIN, 0});
    }
    if (::poll(fds.data(), fds.size(), 0) <= 0) {
        return false;
    }
    bool any = false;
    for (std::size_t i = 0; i < watched.size(); ++i) {
        // POLLNVAL (a descriptor closed under its watch) calls nobody: reading it cannot help.
        if ((fds[i].revents & (POLLIN | POLLHUP | POLLERR)) == 0 || !watched[i]->active) {
            continue;
        }
        any = true;
        watched[i]->readable();
    }
    return any;
}

}  // namespace qv
