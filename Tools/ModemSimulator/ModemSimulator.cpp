#include "ModemSimulator.h"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

namespace qvsim {

namespace {

constexpr std::size_t kMaxCommandLength = 1024;

std::string upper(std::string text) {
    for (char& c : text) {
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    return text;
}

bool startsWith(const std::string& text, const char* prefix) {
    return text.rfind(prefix, 0) == 0;
}

// Commands that need the SIM: with the PIN outstanding they fail with +CME ERROR: 11.
bool needsSim(const std::string& command) {
    for (const char* prefix : {"AT+CIMI", "AT+CCID", "AT^ICCID", "AT+ICCID", "AT+COPS?", "AT+CNUM",
                               "AT+CPBR", "AT+CMGL"}) {
        if (startsWith(command, prefix)) {
            return true;
        }
    }
    return false;
}

}  // namespace

std::unique_ptr<ModemSimulator> ModemSimulator::start(ModemProfile profile, std::string* error) {
    int master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (master < 0 || ::grantpt(master) != 0 || ::unlockpt(master) != 0) {
        *error = std::string("cannot open a pseudo-terminal: ") + std::strerror(errno);
        if (master >= 0) {
            ::close(master);
        }
        return nullptr;
    }
    char name[128];
    if (::ptsname_r(master, name, sizeof name) != 0) {
        *error = std::string("cannot name the pseudo-terminal: ") + std::strerror(errno);
        ::close(master);
        return nullptr;
    }
    int slave = ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (slave < 0) {
        *error = std::string(name) + ": " + std::strerror(errno);
        ::close(master);
        return nullptr;
    }
    // A modem line does not echo or translate: whoever opens the port finds it raw already.
    termios settings{};
    if (::tcgetattr(slave, &settings) == 0) {
        ::cfmakeraw(&settings);
        ::tcsetattr(slave, TCSANOW, &settings);
    }
    ::fcntl(master, F_SETFL, ::fcntl(master, F_GETFL) | O_NONBLOCK);
    return std::unique_ptr<ModemSimulator>(
        new ModemSimulator(std::move(profile), master, slave, name));
}

ModemSimulator::ModemSimulator(ModemProfile profile, int master, int slave, std::string slavePath)
    : profile_(std::move(profile)),
      master_(master),
      slave_(slave),
      slavePath_(std::move(slavePath)),
      echo_(profile_.echo) {
    if (::pipe2(stopPipe_, O_CLOEXEC | O_NONBLOCK) != 0) {
        stopPipe_[0] = stopPipe_[1] = -1;
    }
    thread_ = std::thread([this]() { run(); });
}

ModemSimulator::~ModemSimulator() {
    if (stopPipe_[1] >= 0) {
        char byte = 1;
        [[maybe_unused]] ssize_t written = ::write(stopPipe_[1], &byte, 1);
    }
    thread_.join();
    for (int fd : {master_, slave_, stopPipe_[0], stopPipe_[1]}) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
}

std::vector<std::string> ModemSimulator::commands() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return commands_;
}

void ModemSimulator::run() {
    std::string line;
    while (!hungUp_) {
        pollfd fds[2] = {{master_, POLLIN, 0}, {stopPipe_[0], POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        if (fds[1].revents != 0) {
            return;
        }
        char buffer[512];
        ssize_t size = ::read(master_, buffer, sizeof buffer);
        if (size <= 0) {
            if (size < 0 && (errno == EAGAIN || errno == EINTR)) {
                continue;
            }
            return;
        }
        for (ssize_t i = 0; i < size && !hungUp_; ++i) {
            char c = buffer[i];
            if (c == '\r') {
                std::string command = std::move(line);
                line.clear();
                while (!command.empty() && command.back() == ' ') {
                    command.pop_back();
                }
                if (!command.empty()) {
                    answer(command);
                }
            } else if (c != '\n' && line.size() < kMaxCommandLength) {
                line.push_back(c);
            }
        }
    }
}

void ModemSimulator::write(const std::string& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        ssize_t written = ::write(master_, bytes.data() + done, bytes.size() - done);
        if (written > 0) {
            done += static_cast<std::size_t>(written);
        } else if (written < 0 && errno == EINTR) {
            continue;
        } else {
            return;  // nobody reads: what the modem says is lost, as on a real line
        }
    }
}

void ModemSimulator::hangUp() {
    hungUp_ = true;
    ::close(master_);
    ::close(slave_);
    master_ = slave_ = -1;
}

std::vector<std::string> ModemSimulator::reply(const std::string& command) {
    std::string key = upper(command);
    if (profile_.simPin && startsWith(key, "AT+CPIN?")) {
        return {"+CPIN: SIM PIN", "OK"};
    }
    if (profile_.simPin && needsSim(key)) {
        return {"+CME ERROR: 11"};
    }
    if (auto it = profile_.replies.find(key); it != profile_.replies.end()) {
        return it->second;
    }
    // Basic commands: echo, verbose results, resets.
    if (key == "AT" || key == "ATV1" || key == "ATQ0" || startsWith(key, "AT+CMEE=") ||
        startsWith(key, "AT+COPS=3,") || startsWith(key, "AT+CREG=")) {
        return {"OK"};
    }
    if (key == "AT&F" || key == "ATZ") {
        echo_ = profile_.echo;
        return {"OK"};
    }
    if (startsWith(key, "ATE0") || startsWith(key, "ATE1")) {
        echo_ = key[3] == '1';
        return {"OK"};
    }
    return {"ERROR"};
}

void ModemSimulator::answer(const std::string& command) {
    std::size_t count = 0;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        commands_.push_back(command);
        count = commands_.size();
    }
    if (profile_.silent) {
        return;
    }
    std::string bytes;
    if (profile_.garbage) {
        bytes += std::string("\x1b[2J\x00\xff\xfe\x07", 8) + profile_.lineEnd;
    }
    if (echo_) {
        bytes += command + "\r";
    }
    std::vector<std::string> lines = reply(command);
    std::string answer;
    for (const std::string& noise : profile_.noise) {
        answer += profile_.lineEnd + noise + profile_.lineEnd;
    }
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (i + 1 == lines.size()) {
            for (const std::string& noise : profile_.noise) {
                answer += profile_.lineEnd + noise + profile_.lineEnd;
            }
        }
        answer += profile_.lineEnd + lines[i] + profile_.lineEnd;
    }
    if (profile_.latency > 0.0) {
        // Waits on the stop pipe so that a slow modem never holds up its own destruction.
        pollfd stop{stopPipe_[0], POLLIN, 0};
        if (::poll(&stop, 1, static_cast<int>(profile_.latency * 1000.0)) > 0) {
            return;
        }
    }
    if (profile_.hangUpAfter > 0 && count > static_cast<std::size_t>(profile_.hangUpAfter)) {
        write(bytes + answer.substr(0, answer.size() / 2));
        hangUp();
        return;
    }
    write(bytes + answer);
}

}  // namespace qvsim
