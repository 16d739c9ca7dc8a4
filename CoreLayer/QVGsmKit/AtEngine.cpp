#include "AtEngine.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <deque>
#include <limits>
#include <map>
#include <utility>

#include "AtTranscript.h"
#include "GsmResultCodes.h"
#include "SerialPort.h"

namespace qv {

namespace {

constexpr std::size_t kReadChunk = 4096;
// A port that floods gives way to the others after this many reads (of kReadChunk bytes at most)
// per turn.
constexpr int kReadsPerTurn = 16;
constexpr double kNever = std::numeric_limits<double>::infinity();

// Deadlines are seconds on the engine's clock; a bound that is negative or NaN is due at once, one
// above a day is a day.
double after(double start, double seconds) {
    if (!(seconds > 0.0)) {
        seconds = 0.0;
    }
    return start + std::min(seconds, 24.0 * 3600.0);
}

std::string secondsText(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f s", seconds);
    return text;
}

}  // namespace

AtEngine::AtEngine(AtEngineOptions options) : options_(std::move(options)) {
    // Without a wake descriptor the thread could never be told to stop or to look at new work.
    if (wake_.isOpen()) {
        thread_ = std::thread([this]() { run(); });
    }
}

AtEngine::~AtEngine() {
    if (!thread_.joinable()) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake();
    thread_.join();
}

void AtEngine::submit(std::unique_ptr<AtConversation> conversation) {
    if (!conversation) {
        return;
    }
    if (!wake_.isOpen()) {
        conversation->finish(kGsmErrorPortUnavailable,
                             conversation->portPath() +
                                 ": the AT engine cannot run, it has no wake-up descriptor (" +
                                 wake_.failure() + ")");
        return;
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        incoming_.push_back(std::move(conversation));
    }
    wake();
}

void AtEngine::wake() {
    wake_.notify();
}

namespace {

struct PortChannel {
    std::unique_ptr<AtConversation> conversation;
    std::unique_ptr<SerialPort> port;
    AtResponseReader reader;
    std::string command;
    std::string output;
    double commandTimeout = 0.0;
    double commandDeadline = kNever;
    double conversationDeadline = kNever;
    bool done = false;
};

using ChannelPtr = std::unique_ptr<PortChannel>;

// The engine's work on its own thread, kept apart from the members the other threads touch.
class EngineLoop {
  public:
    explicit EngineLoop(const AtEngineOptions& options)
        : options_(options), clock_(options.clock ? options.clock : PollClock::monotonic()) {}

    void add(std::unique_ptr<AtConversation> conversation) {
        std::string key = SerialPort::devicePath(conversation->portPath());
        waiting_[key].push_back(std::move(conversation));
    }

    void activateWaiting() {
        for (auto it = waiting_.begin(); it != waiting_.end();) {
            while (!active_.contains(it->first) && !it->second.empty()) {
                std::unique_ptr<AtConversation> conversation = std::move(it->second.front());
                it->second.pop_front();
                activate(it->first, std::move(conversation));
            }
            it = it->second.empty() ? waiting_.erase(it) : std::next(it);
        }
    }

    // Waits for I/O or the next deadline, at most until the wake descriptor fires.
    void turn(int wakeFd) {
        std::erase_if(active_, [](const auto& entry) { return entry.second->done; });
        bool startable = std::any_of(waiting_.begin(), waiting_.end(), [this](const auto& entry) {
            return !active_.contains(entry.first);
        });
        std::vector<pollfd> fds{{wakeFd, POLLIN, 0}};
        std::vector<PortChannel*> channels;
        double next = kNever;
        for (auto& [key, channel] : active_) {
            short events = POLLIN;
            if (!channel->output.empty()) {
                events |= POLLOUT;
            }
            fds.push_back({channel->port->fd(), events, 0});
            channels.push_back(channel.get());
            next = std::min({next, channel->commandDeadline, channel->conversationDeadline});
        }
        double timeout = -1.0;
        if (startable) {
            timeout = 0.0;
        } else if (next != kNever) {
            timeout = std::max(next - clock_->now(), 0.0);
        }
        int ready = clock_->poll(fds.data(), fds.size(), timeout);
        if (ready < 0 && errno != EINTR) {
            ready = 0;
        }
        if (ready > 0 && (fds[0].revents & POLLIN) != 0) {
            std::uint64_t count = 0;
            [[maybe_unused]] ssize_t got = ::read(wakeFd, &count, sizeof count);
        }
        for (std::size_t i = 0; ready > 0 && i < channels.size(); ++i) {
            handle(*channels[i], fds[i + 1].revents);
        }
        checkDeadlines();
        std::erase_if(active_, [](const auto& entry) { return entry.second->done; });
    }

    void finishEverything(const std::string& reason) {
        for (auto& [key, channel] : active_) {
            if (!channel->done) {
                finish(*channel, kGsmErrorNoResponse, reason);
            }
        }
        active_.clear();
        for (auto& [key, queue] : waiting_) {
            for (auto& conversation : queue) {
                safeFinish(*conversation, kGsmErrorNoResponse, reason);
            }
        }
        waiting_.clear();
    }

  private:
    static void safeFinish(AtConversation& conversation, std::int32_t code,
                           const std::string& reason) {
        try {
            conversation.finish(code, reason);
        } catch (...) {
            // A conversation's owner that throws must not take the I/O thread down.
        }
    }

    void activate(const std::string& key, std::unique_ptr<AtConversation> conversation) {
        SerialPort::Failure failure = SerialPort::Failure::None;
        std::string reason;
        std::unique_ptr<SerialPort> port =
            SerialPort::open(conversation->portPath(), options_.lockDirectories, &failure, &reason);
        if (!port) {
            safeFinish(*conversation, kGsmErrorPortUnavailable, reason);
            return;
        }
        auto channel = std::make_unique<PortChannel>();
        channel->conversation = std::move(conversation);
        channel->port = std::move(port);
        channel->conversationDeadline = after(clock_->now(), options_.conversationTimeout);
        PortChannel& ref = *channel;
        active_[key] = std::move(channel);
        advance(ref, nullptr);
    }

    void finish(PortChannel& channel, std::int32_t code, const std::string& reason) {
        if (channel.done) {
            return;
        }
        channel.done = true;
        // Closed and unlocked before anyone hears the answer, so a follow-up finds it free.
        channel.port.reset();
        safeFinish(*channel.conversation, code, reason);
    }

    void advance(PortChannel& channel, const AtResponse* previous) {
        std::optional<AtCommand> command;
        try {
            command = channel.conversation->next(previous);
        } catch (...) {
            finish(channel, kGsmErrorNoResponse, "the conversation failed");
            return;
        }
        if (!command) {
            finish(channel, 0, {});
            return;
        }
        channel.command = command->text;
        channel.commandTimeout = command->timeout;
        channel.commandDeadline = after(clock_->now(), command->timeout);
        channel.reader.begin(command->text);
        if (command->listenOnly) {
            return;
        }
        channel.output += command->text;
        channel.output += '\r';
        AtTranscript::commandSent(channel.conversation->portPath(), command->text, clock_->now());
        flush(channel);
    }

    void flush(PortChannel& channel) {
        while (!channel.output.empty() && !channel.done) {
            ssize_t written =
                ::write(channel.port->fd(), channel.output.data(), channel.output.size());
            if (written > 0) {
                channel.output.erase(0, static_cast<std::size_t>(written));
            } else if (written < 0 && errno == EINTR) {
                continue;
            } else if (written < 0 && errno == EAGAIN) {
                return;
            } else {
                finish(channel, kGsmErrorPortUnavailable,
                       channel.port->path() + ": hung up while writing");
            }
        }
    }

    void hangUp(PortChannel& channel) {
        finish(channel, kGsmErrorPortUnavailable,
               channel.port->path() + ": the port hung up during \"" + channel.command + "\"");
    }

    void handle(PortChannel& channel, short revents) {
        if (channel.done) {
            return;
        }
        if ((revents & POLLOUT) != 0) {
            flush(channel);
        }
        if ((revents & (POLLIN | POLLHUP | POLLERR)) != 0 && !channel.done) {
            char buffer[kReadChunk];
            for (int i = 0; i < kReadsPerTurn && !channel.done; ++i) {
                ssize_t size = ::read(channel.port->fd(), buffer, sizeof buffer);
                if (size > 0) {
                    AtTranscript::bytesReceived(
                        channel.conversation->portPath(),
                        std::string_view(buffer, static_cast<std::size_t>(size)), clock_->now());
                    // The reader takes the whole read: bytes behind a final result are read on
                    // as reports, never as the next command's answer.
                    bool wasWaiting = !channel.reader.complete();
                    if (channel.reader.feed(buffer, static_cast<std::size_t>(size)) && wasWaiting) {
                        AtResponse response = channel.reader.response();
                        advance(channel, &response);
                    }
                    continue;
                }
                if (size < 0 && errno == EINTR) {
                    continue;
                }
                if (size < 0 && errno == EAGAIN) {
                    break;
                }
                hangUp(channel);  // 0 (end of file) or EIO and friends
            }
        }
        if ((revents & (POLLHUP | POLLERR | POLLNVAL)) != 0 && !channel.done) {
            hangUp(channel);
        }
    }

    void checkDeadlines() {
        double now = clock_->now();
        for (auto& [key, channel] : active_) {
            if (channel->done) {
                continue;
            }
            if (now >= channel->conversationDeadline) {
                finish(*channel, kGsmErrorNoResponse,
                       channel->port->path() + ": no complete answer within " +
                           secondsText(options_.conversationTimeout));
            } else if (now >= channel->commandDeadline) {
                AtResponse response = channel->reader.response();
                response.final = AtFinal::Timeout;
                channel->reader.standBy();
                advance(*channel, &response);
            }
        }
    }

    const AtEngineOptions& options_;
    std::shared_ptr<PollClock> clock_;
    std::map<std::string, std::deque<std::unique_ptr<AtConversation>>> waiting_;
    std::map<std::string, ChannelPtr> active_;
};

}  // namespace

void AtEngine::run() {
    EngineLoop loop(options_);
    for (;;) {
        std::vector<std::unique_ptr<AtConversation>> fresh;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (stopping_) {
                break;
            }
            fresh.swap(incoming_);
        }
        for (auto& conversation : fresh) {
            loop.add(std::move(conversation));
        }
        loop.activateWaiting();
        loop.turn(wake_.readFd());
    }
    std::vector<std::unique_ptr<AtConversation>> left;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        left.swap(incoming_);
    }
    for (auto& conversation : left) {
        loop.add(std::move(conversation));
    }
    loop.finishEverything("the AT engine stopped before the modem answered");
}

}  // namespace qv
