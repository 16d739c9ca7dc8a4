// qv-modem-simulator PROFILE [--link PATH]: a modem on a pseudo-terminal for people without one.
// Prints the port's path as its first line, then answers AT commands as the profile says until
// SIGINT or SIGTERM (or until the profile hangs up). --link also makes PATH a symbolic link to the
// port; PATH must not exist (whatever is there is never replaced), and at the end the link is
// removed only while it is still the very link made here. Exit 0 when done, 1 when no pty or no
// link could be made, 2 on a usage mistake, a bad profile or a PATH that exists.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <iostream>
#include <optional>
#include <string>

#include "ModemSimulator.h"

namespace {

// Removes the link at `path` only when it is still the one made (same inode, same target).
void removeOwnLink(const std::string& path, const struct stat& made, const std::string& target) {
    struct stat now {};
    if (::lstat(path.c_str(), &now) != 0 || !S_ISLNK(now.st_mode) || now.st_ino != made.st_ino ||
        now.st_dev != made.st_dev) {
        return;
    }
    char buffer[4096];
    ssize_t size = ::readlink(path.c_str(), buffer, sizeof buffer);
    if (size < 0 || std::string(buffer, static_cast<std::size_t>(size)) != target) {
        return;
    }
    ::unlink(path.c_str());
}

int usage(const char* why) {
    std::cerr << "qv-modem-simulator: " << why << "\n"
              << "usage: qv-modem-simulator PROFILE [--link PATH]\n";
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    std::string profilePath;
    std::string link;
    for (int i = 1; i < argc; ++i) {
        std::string argument = argv[i];
        if (argument == "--link" && i + 1 < argc) {
            link = argv[++i];
        } else if (argument == "--help" || argument == "-h") {
            std::cout << "usage: qv-modem-simulator PROFILE [--link PATH]\n";
            return 0;
        } else if (!argument.empty() && argument.front() != '-' && profilePath.empty()) {
            profilePath = argument;
        } else {
            return usage(("unexpected argument: " + argument).c_str());
        }
    }
    if (profilePath.empty()) {
        return usage("no profile given");
    }
    std::string error;
    std::optional<qvsim::ModemProfile> profile = qvsim::ModemProfile::fromFile(profilePath, &error);
    if (!profile) {
        std::cerr << "qv-modem-simulator: " << error << "\n";
        return 2;
    }
    // Signals are taken by sigtimedwait below, on this thread only.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    std::unique_ptr<qvsim::ModemSimulator> modem = qvsim::ModemSimulator::start(*profile, &error);
    if (!modem) {
        std::cerr << "qv-modem-simulator: " << error << "\n";
        return 1;
    }
    struct stat made {};
    if (!link.empty()) {
        // symlink() never replaces: an existing PATH (file, device, link) fails with EEXIST.
        if (::symlink(modem->portPath().c_str(), link.c_str()) != 0) {
            int error = errno;
            std::cerr << "qv-modem-simulator: " << link << ": " << std::strerror(error)
                      << (error == EEXIST ? " (not replaced; choose a path that does not exist)"
                                          : "")
                      << "\n";
            return error == EEXIST ? 2 : 1;
        }
        if (::lstat(link.c_str(), &made) != 0) {
            link.clear();
        }
    }
    // The first line says the modem is ready, its link included.
    std::cout << modem->portPath() << std::endl;
    timespec tick{0, 200 * 1000 * 1000};
    while (!modem->hungUp()) {
        int signal = sigtimedwait(&signals, nullptr, &tick);
        if (signal > 0) {
            break;
        }
    }
    if (!link.empty()) {
        removeOwnLink(link, made, modem->portPath());
    }
    return 0;
}
