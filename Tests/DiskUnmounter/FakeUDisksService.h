// A stand-in for udisks2 on a private bus: the object manager, Filesystem.Unmount and
// Drive.Eject, answering from a small model on a thread of its own. Each Unmount takes the first
// mount point of the filesystem away, as udisks2 does with one of a bind-mounted filesystem's.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

typedef struct _GMainLoop GMainLoop;
typedef struct _GDBusConnection GDBusConnection;
typedef struct _GDBusMethodInvocation GDBusMethodInvocation;
typedef struct _GVariant GVariant;

namespace diskunmountertest {

struct FakeBlock {
    std::string name;  // object path block_devices/NAME
    unsigned major = 0;
    unsigned minor = 0;
    std::string drive;  // object path drives/DRIVE, or "" for none
    bool filesystem = true;
    std::vector<std::string> mountPoints;
    bool busy = false;  // Unmount fails as udisks2 does on a busy filesystem, unless forced
};

class FakeUDisksService {
  public:
    FakeUDisksService(std::string busAddress, std::vector<FakeBlock> blocks);
    ~FakeUDisksService();

    // Connects, exports the objects and takes the name; false with a reason when it could not.
    bool start(std::string* error);
    // "Unmount sdb1", "Eject cdrom", each with " (no interaction)" when the caller asked for no
    // interactive authentication and " (force)" for a forced unmount.
    std::vector<std::string> calls();

    void handle(const std::string& objectPath, const std::string& method, GVariant* parameters,
                GDBusMethodInvocation* invocation);

  private:
    void serve();
    GVariant* managedObjects();

    std::string busAddress_;
    std::vector<FakeBlock> blocks_;
    std::vector<std::string> calls_;
    std::mutex mutex_;
    std::condition_variable started_;
    bool finishedStarting_ = false;
    std::string startError_;
    GMainLoop* loop_ = nullptr;
    std::thread thread_;
};

}  // namespace diskunmountertest
