#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "DiskDevices.h"
#include "MountTable.h"
#include "UnmountPlan.h"

namespace {

using diskunmounter::DiskDevices;
using diskunmounter::MountEntry;
using diskunmounter::MountTable;
using diskunmounter::UnmountPlan;

const std::string kData = QV_TEST_DATA_DIR "/DiskUnmounter";

DiskDevices fixtureDisk(const std::string& name) {
    std::string error;
    std::optional<DiskDevices> disk = DiskDevices::read(kData + "/sys", name, &error);
    EXPECT_TRUE(disk) << error;
    return disk.value_or(DiskDevices());
}

MountTable fixtureTable() {
    std::string error;
    std::optional<MountTable> table = MountTable::read(kData + "/mountinfo", &error);
    EXPECT_TRUE(table) << error;
    return table.value_or(MountTable());
}

// The planned mount points, in order, or the error.
std::vector<std::string> plan(const MountTable& table, const std::string& name) {
    std::string error;
    std::optional<UnmountPlan> plan = UnmountPlan::make(table, fixtureDisk(name), &error);
    if (!plan) {
        return {"error: " + error};
    }
    std::vector<std::string> points;
    for (const auto& step : plan->steps()) {
        points.push_back(step.mountPoint + " (" + step.deviceName + ")");
    }
    return points;
}

TEST(MountTable, ParsesTheKernelLayoutWithEscapesAndOptionalFields) {
    MountTable table = fixtureTable();
    ASSERT_EQ(table.entries().size(), 12u);
    const MountEntry& bind = table.entries()[6];
    EXPECT_EQ(bind.mountId, 41u);
    EXPECT_EQ(bind.parentId, 22u);
    EXPECT_EQ(bind.major, 8u);
    EXPECT_EQ(bind.minor, 17u);
    EXPECT_EQ(bind.root, "/photos");
    EXPECT_EQ(bind.mountPoint, "/home/user/photos\tfrom stick");
    EXPECT_EQ(bind.fsType, "vfat");
    EXPECT_EQ(bind.source, "/dev/sdb1");
    EXPECT_EQ(table.entries()[7].mountPoint, "/run/media/user/DATA\\backup");

    // An empty source is a field of its own, not a reason to shift the others.
    std::string error;
    auto empty = MountTable::parse("60 30 0:60 / /mnt rw - tmpfs  rw\n", &error);
    ASSERT_TRUE(empty) << error;
    EXPECT_EQ(empty->entries()[0].fsType, "tmpfs");
    EXPECT_EQ(empty->entries()[0].source, "");

    EXPECT_EQ(MountTable::unescape("a\\040b\\134\\012"), "a b\\\n");
    // Not an escape of one byte: kept as written.
    EXPECT_EQ(MountTable::unescape("\\400 \\08x \\04"), "\\400 \\08x \\04");
    EXPECT_EQ(MountTable::quoted("/media/a \"b\"\\\n"), "\"/media/a \\042b\\042\\134\\012\"");
}

TEST(MountTable, RefusesTextThatIsNotMountInfo) {
    const char* bad[] = {
        "22 1 254:0 / / rw,relatime shared:1 ext4 /dev/vda rw",  // no separator
        "22 1 254:0 / / rw -",                                   // nothing after it
        "22 1 254:0 / / rw - ext4",                              // no source
        "x 1 254:0 / / rw - ext4 /dev/vda rw",                   // id not a number
        "22 1 254-0 / / rw - ext4 /dev/vda rw",                  // device without colon
        "22 1 :0 / / rw - ext4 /dev/vda rw",
        "22 1 99999999999:0 / / rw - ext4 /dev/vda rw",  // out of range
    };
    for (const char* line : bad) {
        std::string error;
        std::string text = std::string("23 22 0:21 / /proc rw - proc proc rw\n") + line + "\n";
        EXPECT_FALSE(MountTable::parse(text, &error)) << line;
        EXPECT_EQ(error, "line 2 is not a mount entry") << line;
    }
    std::string error;
    EXPECT_FALSE(MountTable::read(kData + "/no-such-file", &error));
    EXPECT_EQ(error, kData + "/no-such-file: cannot read: No such file or directory");
}

// The table a test names with --mountinfo is read within bounds: only a regular file, only up to
// the limit, and a FIFO neither hangs the tool nor is read.
TEST(MountTable, ReadsOnlyARegularFileUpToItsLimit) {
    char directoryTemplate[] = "/tmp/qv-mountinfo-XXXXXX";
    ASSERT_NE(mkdtemp(directoryTemplate), nullptr);
    const std::string directory = directoryTemplate;
    const std::string line = "23 22 0:21 / /proc rw - proc proc rw\n";
    const std::string file = directory + "/mountinfo";
    {
        std::ofstream out(file, std::ios::binary);
        for (int i = 0; i < 100; ++i) {
            out << line;
        }
    }
    std::string error;
    std::optional<MountTable> whole = MountTable::read(file, &error, 100 * line.size());
    ASSERT_TRUE(whole) << error;
    EXPECT_EQ(whole->entries().size(), 100u);
    EXPECT_FALSE(MountTable::read(file, &error, 100 * line.size() - 1));
    EXPECT_EQ(error, file + ": larger than " + std::to_string(100 * line.size() - 1) + " bytes");

    const std::string fifo = directory + "/fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_FALSE(MountTable::read(fifo, &error));
    EXPECT_EQ(error, fifo + ": not a regular file");
    EXPECT_FALSE(MountTable::read(directory, &error));
    EXPECT_EQ(error, directory + ": not a regular file");
    // The kernel's own table is a regular file of size 0 that still has content.
    ASSERT_TRUE(MountTable::read("/proc/self/mountinfo", &error)) << error;
    std::remove(fifo.c_str());
    std::remove(file.c_str());
    rmdir(directory.c_str());
}

TEST(UnmountPlan, TakesEveryMountOfTheDiskOrPartitionAndNoOther) {
    MountTable table = fixtureTable();
    // Whole disk: both partitions, bind mounts and the btrfs subvolume (anonymous device number,
    // found by its source) included, the nested one first; sdc1 and sdba1 stay.
    EXPECT_EQ(plan(table, "sdb"), (std::vector<std::string>{
                                      "/run/media/user/DATA\\backup/snapshots (sdb2)",
                                      "/run/media/user/DATA\\backup (sdb2)",
                                      "/home/user/photos\tfrom stick (sdb1)",
                                      "/run/media/user/USB STICK (sdb1)",
                                  }));
    // A partition: only its own mounts.
    EXPECT_EQ(plan(table, "sdb1"), (std::vector<std::string>{
                                       "/home/user/photos\tfrom stick (sdb1)",
                                       "/run/media/user/USB STICK (sdb1)",
                                   }));
    EXPECT_EQ(plan(table, "sdc"), (std::vector<std::string>{"/run/media/user/OTHER (sdc1)"}));
    EXPECT_EQ(plan(table, "sr0"), (std::vector<std::string>{"/run/media/user/Driver CD (sr0)"}));
    EXPECT_EQ(plan(MountTable(), "sdb"), (std::vector<std::string>{}));
}

TEST(UnmountPlan, PlansNothingWhenAnotherDeviceIsMountedOnOrInsideOneOfOurs) {
    std::string error;
    auto inside = MountTable::parse(
        "30 22 0:25 / /run rw - tmpfs tmpfs rw\n"
        "40 30 8:17 / /run/media/USB\\040STICK rw - vfat /dev/sdb1 rw\n"
        "41 40 8:17 /sub /run/media/USB\\040STICK/own rw - vfat /dev/sdb1 rw\n"
        "60 41 0:60 / /run/media/USB\\040STICK/own/cache rw - tmpfs tmpfs rw\n"
        "70 30 8:18 / /run/media/second rw - ext4 /dev/sdb2 rw\n",
        &error);
    ASSERT_TRUE(inside) << error;
    EXPECT_EQ(plan(*inside, "sdb"),
              (std::vector<std::string>{
                  "error: cannot unmount \"/run/media/USB STICK\" (sdb1): \"/run/media/USB "
                  "STICK/own/cache\" of another device is mounted on or inside it"}));

    // Another disk stacked on the same mount point hides ours: unmounting the path would hit it.
    auto stacked = MountTable::parse(
        "40 30 8:17 / /media/usb rw - vfat /dev/sdb1 rw\n"
        "45 40 8:33 / /media/usb rw - ext4 /dev/sdc1 rw\n",
        &error);
    ASSERT_TRUE(stacked) << error;
    EXPECT_EQ(plan(*stacked, "sdb"),
              (std::vector<std::string>{"error: cannot unmount \"/media/usb\" (sdb1): "
                                        "\"/media/usb\" of another device is mounted on or "
                                        "inside it"}));
    // The other way round is fine: our mount on top goes, theirs stays.
    EXPECT_EQ(plan(*stacked, "sdc"), (std::vector<std::string>{"/media/usb (sdc1)"}));
}

TEST(UnmountPlan, RefusesALoopingMadeUpTableAtOnceEvenWithMountIdsUsedTwice) {
    // Twelve mounts "1" on "2" and twelve "2" on "1": every mount has one on top of it, and a
    // walk along every path below the first would take 12^24 steps.
    std::string text;
    for (int i = 0; i < 12; ++i) {
        text += "1 2 8:17 / /a rw - vfat /dev/sdb1 rw\n2 1 8:17 / /b rw - vfat /dev/sdb1 rw\n";
    }
    std::string error;
    auto table = MountTable::parse(text, &error);
    ASSERT_TRUE(table) << error;
    EXPECT_EQ(
        plan(*table, "sdb"),
        (std::vector<std::string>{"error: cannot unmount \"/a\" (sdb1): the mount table loops"}));

    // Another device mounted on the last "2" still blocks, found through the same loop.
    auto blocked = MountTable::parse(text + "3 2 8:33 / /b/c rw - ext4 /dev/sdc1 rw\n", &error);
    ASSERT_TRUE(blocked) << error;
    EXPECT_EQ(plan(*blocked, "sdb"),
              (std::vector<std::string>{"error: cannot unmount \"/a\" (sdb1): \"/b/c\" of another "
                                        "device is mounted on or inside it"}));
}

}  // namespace
