// The few calls the unmounter makes to udisks2 over D-Bus (GDBus, synchronous): the block
// objects with their device numbers, drives and mount points, Filesystem.Unmount and Drive.Eject.
// Going through udisks2 lets an unprivileged desktop user unmount removable media, as polkit
// allows.
#pragma once

#include <memory>
#include <string>
#include <vector>

typedef struct _GDBusConnection GDBusConnection;

namespace diskunmounter {

class UDisksClient {
  public:
    struct Block {
        std::string objectPath;
        unsigned major = 0;
        unsigned minor = 0;
        std::string drivePath;  // "/" when udisks2 knows no drive for it
        bool hasFilesystem = false;
        std::vector<std::string> mountPoints;
    };

    // Connects to the bus at `busAddress`, or to the system bus when it is empty. nullptr, with
    // the reason in `why`, when there is no bus or udisks2 neither runs nor can be started there.
    static std::unique_ptr<UDisksClient> connect(const std::string& busAddress, std::string* why);

    ~UDisksClient();
    UDisksClient(const UDisksClient&) = delete;
    UDisksClient& operator=(const UDisksClient&) = delete;

    // Every block object udisks2 manages, read afresh.
    bool blocks(std::vector<Block>* result, std::string* error);
    // Filesystem.Unmount on the block object at `objectPath`, without interactive authentication;
    // with `force`, a filesystem in use is detached (udisks2's "force" option, a lazy unmount).
    bool unmount(const std::string& objectPath, bool force, std::string* error);
    // Drive.Eject on the drive object at `drivePath`, without interactive authentication.
    bool eject(const std::string& drivePath, std::string* error);

  private:
    explicit UDisksClient(GDBusConnection* connection) : connection_(connection) {}
    bool callWithOptions(const std::string& objectPath, const char* interface, const char* method,
                         bool force, std::string* error);

    GDBusConnection* connection_;
};

}  // namespace diskunmounter
