#include "WakeChannel.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace qv {

namespace {

std::string errorText(const char* call, int error) {
    return std::string(call) + ": " + std::strerror(error);
}

}  // namespace

WakeChannel::WakeChannel(bool tryEventFd) {
    if (tryEventFd) {
        int fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (fd >= 0) {
            kind_ = Kind::EventFd;
            readFd_ = fd;
            writeFd_ = fd;
            return;
        }
        failure_ = errorText("eventfd", errno);
    }
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC | O_NONBLOCK) == 0) {
        kind_ = Kind::Pipe;
        readFd_ = fds[0];
        writeFd_ = fds[1];
        failure_.clear();
        return;
    }
    failure_ += (failure_.empty() ? "" : "; ") + errorText("pipe", errno);
}

WakeChannel::~WakeChannel() {
    if (writeFd_ >= 0 && writeFd_ != readFd_) {
        ::close(writeFd_);
    }
    if (readFd_ >= 0) {
        ::close(readFd_);
    }
}

void WakeChannel::notify() const {
    if (writeFd_ < 0) {
        return;
    }
    // A full pipe or a saturated counter is readable already: the failed write loses nothing.
    if (kind_ == Kind::EventFd) {
        std::uint64_t one = 1;
        [[maybe_unused]] ssize_t written = ::write(writeFd_, &one, sizeof one);
    } else {
        char one = 1;
        [[maybe_unused]] ssize_t written = ::write(writeFd_, &one, sizeof one);
    }
}

}  // namespace qv
