// qv::WakeChannel: a descriptor that other threads make readable to wake a thread blocked in
// poll(). An eventfd where the kernel gives one, otherwise a non-blocking self-pipe; when neither
// can be opened (out of descriptors) the channel is closed and says why, so that its owner can
// refuse work instead of blocking for ever on a descriptor nobody can signal.
//
// The waiting thread empties it with one 8-byte read: all of an eventfd's count, up to eight
// wake-ups of a pipe. What a pipe still holds only makes the next poll() return at once.
#pragma once

#include <string>

namespace qv {

class WakeChannel {
  public:
    enum class Kind { EventFd, Pipe, Closed };

    // Tries an eventfd, then a pipe; with `tryEventFd` false only the pipe.
    explicit WakeChannel(bool tryEventFd = true);
    ~WakeChannel();
    WakeChannel(const WakeChannel&) = delete;
    WakeChannel& operator=(const WakeChannel&) = delete;

    Kind kind() const { return kind_; }
    bool isOpen() const { return kind_ != Kind::Closed; }
    // What poll() waits on; -1 when closed.
    int readFd() const { return readFd_; }
    // Makes readFd() readable; safe from any thread. Nothing when closed.
    void notify() const;
    // Why the channel is closed ("eventfd: Too many open files; pipe: ..."); empty when open.
    const std::string& failure() const { return failure_; }

  private:
    Kind kind_ = Kind::Closed;
    int readFd_ = -1;
    int writeFd_ = -1;
    std::string failure_;
};

}  // namespace qv
