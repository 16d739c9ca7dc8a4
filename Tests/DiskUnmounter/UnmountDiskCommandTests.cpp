#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "Foundation/Task.h"
#include "KernelDiskName.h"
#include "UnmountDiskCommand.h"

namespace {

using diskunmounter::UnmountDiskCommand;

const std::string kData = QV_TEST_DATA_DIR "/DiskUnmounter";

struct Outcome {
    int status = -1;
    std::string out;
    std::string err;
};

Outcome runCommand(std::vector<std::string> arguments) {
    std::ostringstream out;
    std::ostringstream err;
    Outcome outcome;
    outcome.status = UnmountDiskCommand::main(arguments, out, err);
    outcome.out = out.str();
    outcome.err = err.str();
    return outcome;
}

// Against the fixture sysfs tree and mount table: never the machine's own disks.
Outcome runOnFixture(const std::string& name) {
    return runCommand({"--sysfs", kData + "/sys", "--mountinfo=" + kData + "/mountinfo",
                       "--dry-run", "unmountDisk", name});
}

TEST(UnmountDiskCommand, RefusesNamesThatAreNotPlainKernelNames) {
    const std::vector<std::string> refused{"",
                                           "../sdb",
                                           "/dev/sdb",
                                           "sdb/../sda",
                                           "-rf",
                                           "--dry-run",
                                           ".",
                                           "..",
                                           "sd b",
                                           "sdb\n",
                                           "sdb1;",
                                           "sdb$x",
                                           ".hidden",
                                           std::string(32, 'a'),
                                           std::string("sd\0b", 4)};
    for (const std::string& name : refused) {
        Outcome outcome = runOnFixture(name);
        EXPECT_EQ(outcome.status, 1) << name;
        EXPECT_EQ(outcome.out, "") << name;
        EXPECT_NE(outcome.err.find("not a plain kernel block device name"), std::string::npos)
            << outcome.err;
        EXPECT_EQ(outcome.err.find('\n'), outcome.err.size() - 1) << "one line: " << outcome.err;
    }
    for (const char* name : {"sdb", "sr0", "mmcblk0p1", "nvme0n1", "dm-0", "md127", "loop7"}) {
        EXPECT_TRUE(diskunmounter::isPlainKernelName(name)) << name;
    }
    EXPECT_TRUE(diskunmounter::isOpticalDriveName("sr12"));
    for (const char* name : {"sr", "srx", "sdb", "xsr0"}) {
        EXPECT_FALSE(diskunmounter::isOpticalDriveName(name)) << name;
    }

    // The program itself, as the ejector starts it.
    qv::TaskResult program =
        qv::PosixTaskLauncher().run(QV_UNMOUNTER_PATH, {"unmountDisk", "../sda"});
    EXPECT_TRUE(program.launched) << program.error;
    EXPECT_EQ(program.exitStatus, 1);

    // Plain, but not a block device here; a directory that exists only below a disk is not one.
    EXPECT_EQ(runOnFixture("sdz").err, "qv-unmount-disk: sdz is not a block device\n");
    EXPECT_EQ(runOnFixture("queue").err, "qv-unmount-disk: queue is not a block device\n");
}

TEST(UnmountDiskCommand, RefusesABadCommandLine) {
    const std::vector<std::vector<std::string>> bad{{},
                                                    {"unmountDisk"},
                                                    {"mount", "sdb"},
                                                    {"eject", "force", "sdb"},
                                                    {"unmountDisk", "force", "sdb", "sdc"},
                                                    {"unmountDisk", "sdb", "sdc"},
                                                    {"--bogus", "unmountDisk", "sdb"},
                                                    {"--sysfs"}};
    for (const auto& arguments : bad) {
        Outcome outcome = runCommand(arguments);
        EXPECT_EQ(outcome.status, 2);
        EXPECT_EQ(outcome.err.rfind("qv-unmount-disk: ", 0), 0u) << outcome.err;
        EXPECT_EQ(outcome.err.find('\n'), outcome.err.size() - 1) << outcome.err;
    }
    Outcome help = runCommand({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("--mountinfo PATH"), std::string::npos);
    EXPECT_NE(help.out.find("--sysfs DIR"), std::string::npos);

    // "force" is the flag only after unmountDisk and before a name.
    std::string error;
    bool help2 = false;
    auto forced = UnmountDiskCommand::parse({"unmountDisk", "force", "sdb"}, &error, &help2);
    ASSERT_TRUE(forced) << error;
    EXPECT_TRUE(forced->force);
    EXPECT_EQ(forced->diskName, "sdb");
    auto named = UnmountDiskCommand::parse({"unmountDisk", "force"}, &error, &help2);
    ASSERT_TRUE(named) << error;
    EXPECT_FALSE(named->force);
    EXPECT_EQ(named->diskName, "force");
    auto eject = UnmountDiskCommand::parse({"eject", "sr0"}, &error, &help2);
    ASSERT_TRUE(eject) << error;
    EXPECT_EQ(eject->command, diskunmounter::DiskCommand::Eject);
}

TEST(UnmountDiskCommand, DryRunOfForceAndEjectOnTheFixture) {
    auto run = [](std::vector<std::string> command) {
        std::vector<std::string> arguments{"--sysfs", kData + "/sys",
                                           "--mountinfo=" + kData + "/mountinfo", "--dry-run"};
        arguments.insert(arguments.end(), command.begin(), command.end());
        return runCommand(arguments);
    };
    Outcome forced = run({"unmountDisk", "force", "sdb2"});
    EXPECT_EQ(forced.status, 0) << forced.err;
    EXPECT_EQ(
        forced.out,
        "disk sdb2 (8:18), a partition\n"
        "would force-unmount \"/run/media/user/DATA\\134backup/snapshots\" (sdb2) with umount2\n"
        "would force-unmount \"/run/media/user/DATA\\134backup\" (sdb2) with umount2\n");
    // A removable disk that is no CD (a stick's card): its medium goes with the SCSI command.
    Outcome card = run({"eject", "sdb"});
    EXPECT_EQ(card.status, 0) << card.err;
    EXPECT_EQ(card.out.substr(card.out.rfind("would")),
              "would eject sdb with SCSI START STOP UNIT\n");
    // A fixed disk is refused before anything is touched.
    Outcome fixed = run({"eject", "sdc"});
    EXPECT_EQ(fixed.status, 1);
    EXPECT_EQ(fixed.out, "");
    EXPECT_EQ(fixed.err, "qv-unmount-disk: cannot eject sdc: it is not a removable disk\n");
    Outcome cd = run({"eject", "sr0"});
    EXPECT_EQ(cd.out.substr(cd.out.rfind("would")), "would eject sr0 with the CDROMEJECT ioctl\n");
    Outcome partition = run({"eject", "sdb1"});
    EXPECT_EQ(partition.status, 1);
    EXPECT_EQ(partition.err,
              "qv-unmount-disk: cannot eject sdb1: it is a partition, not a whole disk\n");
}

TEST(UnmountDiskCommand, DryRunListsTheWholeDiskAndPartitionsAndNeverAnEject) {
    Outcome disk = runOnFixture("sdb");
    EXPECT_EQ(disk.status, 0) << disk.err;
    EXPECT_EQ(disk.out,
              "disk sdb (8:16) with partitions sdb1 (8:17), sdb2 (8:18)\n"
              "would unmount \"/run/media/user/DATA\\134backup/snapshots\" (sdb2) with umount2\n"
              "would unmount \"/run/media/user/DATA\\134backup\" (sdb2) with umount2\n"
              "would unmount \"/home/user/photos\\011from stick\" (sdb1) with umount2\n"
              "would unmount \"/run/media/user/USB STICK\" (sdb1) with umount2\n");

    Outcome partition = runOnFixture("sdb2");
    EXPECT_EQ(partition.out,
              "disk sdb2 (8:18), a partition\n"
              "would unmount \"/run/media/user/DATA\\134backup/snapshots\" (sdb2) with umount2\n"
              "would unmount \"/run/media/user/DATA\\134backup\" (sdb2) with umount2\n");

    Outcome cd = runOnFixture("sr0");
    EXPECT_EQ(cd.status, 0) << cd.err;
    EXPECT_EQ(cd.out,
              "disk sr0 (11:0)\n"
              "would unmount \"/run/media/user/Driver CD\" (sr0) with umount2\n");
}

}  // namespace
