#include "ModemSimulator.h"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
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

// Commands that need the SIM: with the PIN outstanding or no SIM they fail with +CME ERROR.
bool needsSim(const std::string& command) {
    // Huawei answers AT^ICCID? with the PIN outstanding (modemmanager-devel 2013-09-25).
    for (const char* prefix : {"AT+CIMI", "AT+CCID", "AT+ICCID", "AT+COPS?", "AT+CNUM", "AT+CPBR",
                               "AT+CMGL", "AT+CRSM"}) {
        if (startsWith(command, prefix)) {
            return true;
        }
    }
    return false;
}

std::string hexUcs2(const std::string& text) {
    static const char* kDigits = "0123456789ABCDEF";
    std::string hex;
    for (unsigned char c : text) {
        // The profiles' names are ASCII or Latin-1 read byte by byte: one UTF-16 unit each.
        hex += "00";
        hex += kDigits[c >> 4];
        hex += kDigits[c & 0xF];
    }
    return hex;
}

// `+COPS: 0,0,"Name",2` with the name in UCS2 hex, as a modem set to "UCS2" answers.
std::string copsInUcs2(const std::string& line) {
    std::size_t open = line.find('"');
    std::size_t close = open == std::string::npos ? open : line.find('"', open + 1);
    if (!startsWith(line, "+COPS:") || close == std::string::npos) {
        return line;
    }
    return line.substr(0, open + 1) + hexUcs2(line.substr(open + 1, close - open - 1)) +
           line.substr(close);
}

constexpr std::size_t kMaxOutbox = 1024 * 1024;

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
      echo_(profile_.echo),
      cmee_(profile_.cmee),
      charset_(profile_.charset),
      started_(Clock::now()) {
    nextReport_ = started_ + std::chrono::duration_cast<Clock::duration>(
                                 std::chrono::duration<double>(profile_.reportEvery));
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
    std::string command;
    bool blocked = false;  // the pty took no more: wait for room
    while (!hungUp_) {
        Clock::time_point now = Clock::now();
        Clock::time_point wake = Clock::time_point::max();
        if (!outbox_.empty() && !blocked) {
            wake = outbox_.front().due;
        }
        if (profile_.reportEvery > 0.0) {
            wake = std::min(wake, nextReport_);
        }
        int timeout = -1;
        if (wake != Clock::time_point::max()) {
            auto wait = std::chrono::ceil<std::chrono::milliseconds>(wake - now).count();
            timeout = static_cast<int>(std::clamp<long long>(wait, 0, 60 * 1000));
        }
        short events = POLLIN;
        if (blocked) {
            events |= POLLOUT;
        }
        pollfd fds[2] = {{master_, events, 0}, {stopPipe_[0], POLLIN, 0}};
        if (::poll(fds, 2, timeout) < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        if (fds[1].revents != 0) {
            return;
        }
        if ((fds[0].revents & POLLIN) != 0) {
            char buffer[512];
            ssize_t size = ::read(master_, buffer, sizeof buffer);
            if (size < 0 && errno != EAGAIN && errno != EINTR && errno != EIO) {
                return;
            }
            for (ssize_t i = 0; i < size && !hungUp_; ++i) {
                char c = buffer[i];
                if (c == '\r') {
                    std::string text = std::move(command);
                    command.clear();
                    while (!text.empty() && text.back() == ' ') {
                        text.pop_back();
                    }
                    if (!text.empty()) {
                        answer(text);
                    }
                } else if (c != '\n' && command.size() < kMaxCommandLength) {
                    command.push_back(c);
                }
            }
        }
        if (profile_.reportEvery > 0.0 && Clock::now() >= nextReport_) {
            sendReport();
        }
        blocked = !writeDue();
    }
}

bool ModemSimulator::writeDue() {
    while (!outbox_.empty() && !hungUp_ && outbox_.front().due <= Clock::now()) {
        Chunk& chunk = outbox_.front();
        while (!chunk.bytes.empty()) {
            ssize_t written = ::write(master_, chunk.bytes.data(), chunk.bytes.size());
            if (written > 0) {
                chunk.bytes.erase(0, static_cast<std::size_t>(written));
            } else if (written < 0 && errno == EINTR) {
                continue;
            } else {
                return false;  // full: the rest waits for room
            }
        }
        bool hangUpNow = chunk.hangUp;
        outbox_.pop_front();
        if (hangUpNow) {
            hangUp();
        }
    }
    return true;
}

void ModemSimulator::send(std::string bytes, double delay) {
    Clock::time_point due = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                               std::chrono::duration<double>(delay));
    if (!outbox_.empty()) {
        due = std::max(due, outbox_.back().due);
    }
    if (profile_.bytePerWrite) {
        for (char c : bytes) {
            outbox_.push_back({due, std::string(1, c)});
            due += std::chrono::milliseconds(1);
        }
        return;
    }
    outbox_.push_back({due, std::move(bytes)});
}

void ModemSimulator::sendReport() {
    nextReport_ = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                     std::chrono::duration<double>(profile_.reportEvery));
    std::size_t queued = 0;
    for (const Chunk& chunk : outbox_) {
        queued += chunk.bytes.size();
    }
    if (queued > kMaxOutbox) {
        return;  // nobody reads: reports are what a full line loses first
    }
    std::string report = line(profile_.reports[reportIndex_++ % profile_.reports.size()]);
    // Cut at a position that moves by one each time, so that every boundary comes up.
    std::size_t cut = reportCut_++ % (report.size() + 1);
    send(report.substr(0, cut), 0.0);
    send(report.substr(cut), std::min(0.02, profile_.reportEvery / 2));
}

void ModemSimulator::hangUp() {
    hungUp_ = true;
    ::close(master_);
    ::close(slave_);
    master_ = slave_ = -1;
    outbox_.clear();
}

std::string ModemSimulator::cmeError(int code, const char* text) const {
    // 27.007 9.1: +CMEE=0 plain ERROR, 1 the number, 2 the words.
    if (cmee_ == 0) {
        return "ERROR";
    }
    return cmee_ == 1 ? "+CME ERROR: " + std::to_string(code) : std::string("+CME ERROR: ") + text;
}

std::vector<std::string> ModemSimulator::reply(const std::string& command) {
    std::string key = upper(command);
    // 27.007 9.2: 10 "SIM not inserted", 11 "SIM PIN required".
    if (profile_.sim == SimState::Pin && startsWith(key, "AT+CPIN?")) {
        return {"+CPIN: SIM PIN", "OK"};
    }
    if (profile_.sim == SimState::Pin && needsSim(key)) {
        return {cmeError(11, "SIM PIN required")};
    }
    if (profile_.sim == SimState::Absent && (startsWith(key, "AT+CPIN") || needsSim(key))) {
        return {cmeError(10, "SIM not inserted")};
    }
    if (auto it = profile_.replies.find(key); it != profile_.replies.end()) {
        std::vector<std::string> lines = it->second;
        if (charset_ == "UCS2") {
            for (std::string& text : lines) {
                text = copsInUcs2(text);
            }
        }
        return lines;
    }
    if (key == "AT+CSCS?") {
        return {"+CSCS: \"" + charset_ + "\"", "OK"};
    }
    if (startsWith(key, "AT+CSCS=") && key != "AT+CSCS=?") {
        std::string set = key.substr(8);
        if (set.size() >= 2 && set.front() == '"' && set.back() == '"') {
            set = set.substr(1, set.size() - 2);
        }
        if (set != "IRA" && set != "GSM" && set != "UCS2") {
            return {"ERROR"};
        }
        charset_ = set;
        return {"OK"};
    }
    if (startsWith(key, "AT+CMEE=") && key.size() == 9 && key[8] >= '0' && key[8] <= '2') {
        cmee_ = key[8] - '0';
        return {"OK"};
    }
    // Basic commands: echo, verbose results, resets.
    if (key == "AT" || key == "ATV1" || key == "ATQ0" || startsWith(key, "AT+COPS=3,") ||
        startsWith(key, "AT+CREG=")) {
        return {"OK"};
    }
    if (key == "AT&F" || key == "ATZ") {
        echo_ = profile_.echo;
        cmee_ = profile_.cmee;
        charset_ = profile_.charset;
        return {"OK"};
    }
    if (key == "ATE0;V1" || key == "ATE1;V1") {
        echo_ = key[3] == '1';
        return {"OK"};
    }
    if (startsWith(key, "ATE0") || startsWith(key, "ATE1")) {
        echo_ = key[3] == '1';
        return {"OK"};
    }
    return {"ERROR"};
}

void ModemSimulator::answer(const std::string& command) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        commands_.push_back(command);
    }
    if (profile_.silent) {
        return;
    }
    std::chrono::duration<double> since = Clock::now() - started_;
    if (since.count() < profile_.powerUpSilence) {
        return;  // still powering up: nothing heard
    }
    std::size_t heard = ++answered_;
    if (profile_.loseFirstCommand && heard == 1) {
        return;  // lost to the line's noise
    }
    std::string bytes;
    if (profile_.powerUpNoise && !firstNoiseSent_) {
        firstNoiseSent_ = true;
        bytes += std::string(6, '\0') + std::string(6, '\xff');
    }
    if (profile_.garbage) {
        bytes += std::string("\x1b[2J\x00\xff\xfe\x07", 8) + lineEnd();
    }
    if (echo_) {
        bytes += command + "\r";
    }
    std::size_t firstAnswered = profile_.loseFirstCommand ? 2 : 1;
    std::vector<std::string> lines = profile_.firstCommandError && heard == firstAnswered
                                         ? std::vector<std::string>{"ERROR"}
                                         : reply(command);
    std::string answer;
    for (const std::string& noise : profile_.noise) {
        answer += line(noise);
    }
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (i + 1 == lines.size()) {
            for (const std::string& noise : profile_.noise) {
                answer += line(noise);
            }
        }
        answer += line(lines[i]);
    }
    std::string behind;
    for (const std::string& report : profile_.reportsBehindOk) {
        behind += line(report);
    }
    // A report right behind the final result, cut in the middle of its text: the start goes in
    // the same write as the answer, the rest a moment later.
    std::size_t cut =
        behind.empty() ? 0 : lineEnd().size() + (behind.size() - 2 * lineEnd().size()) / 2;
    answer += behind.substr(0, cut);
    if (profile_.hangUpAfter > 0 && heard > static_cast<std::size_t>(profile_.hangUpAfter)) {
        send(bytes + answer.substr(0, answer.size() / 2), profile_.latency);
        outbox_.back().hangUp = true;
        return;
    }
    send(bytes + answer, profile_.latency);
    if (cut < behind.size()) {
        send(behind.substr(cut), 0.02);
    }
}

}  // namespace qvsim
