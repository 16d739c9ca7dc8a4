#include "Foundation/BoundedFileReader.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

namespace {

using qv::FileKinds;
using qv::readFileUpTo;

TEST(BoundedFileReaderTest, ReadsUpToTheLimitAndSaysWhyOtherwise) {
    const std::string path = ::testing::TempDir() + "/qv-bounded-read.txt";
    { std::ofstream(path, std::ios::binary) << "0123456789"; }
    std::string reason;
    for (FileKinds kinds : {FileKinds::RegularOnly, FileKinds::AnyReadable}) {
        EXPECT_EQ(readFileUpTo(path, 10, kinds, &reason), "0123456789");
        EXPECT_FALSE(readFileUpTo(path, 9, kinds, &reason));
        EXPECT_EQ(reason, "larger than 9 bytes");
        EXPECT_FALSE(readFileUpTo(::testing::TempDir(), 100, kinds, &reason));
        EXPECT_EQ(reason, "is a directory");
    }
    std::remove(path.c_str());
    EXPECT_FALSE(readFileUpTo(path, 100, FileKinds::AnyReadable, &reason));
    EXPECT_EQ(reason, "No such file or directory");
    EXPECT_FALSE(readFileUpTo(path, 100, FileKinds::AnyReadable, nullptr));

    // Device nodes: an endless one stops at the limit; only a tool's read takes them at all.
    EXPECT_FALSE(readFileUpTo("/dev/zero", 1 << 20, FileKinds::AnyReadable, &reason));
    EXPECT_EQ(reason, "larger than 1048576 bytes");
    EXPECT_EQ(readFileUpTo("/dev/null", 100, FileKinds::AnyReadable, &reason), "");
    EXPECT_FALSE(readFileUpTo("/dev/null", 100, FileKinds::RegularOnly, &reason));
    EXPECT_EQ(reason, "is not a regular file");
}

TEST(BoundedFileReaderTest, LinksThatGoRoundAndFifosAreNamedAsSuch) {
    const std::string a = ::testing::TempDir() + "/qv-loop-a";
    const std::string b = ::testing::TempDir() + "/qv-loop-b";
    std::remove(a.c_str());
    std::remove(b.c_str());
    ASSERT_EQ(symlink(b.c_str(), a.c_str()), 0);
    ASSERT_EQ(symlink(a.c_str(), b.c_str()), 0);
    std::string reason;
    for (FileKinds kinds : {FileKinds::RegularOnly, FileKinds::AnyReadable}) {
        EXPECT_FALSE(readFileUpTo(a, 100, kinds, &reason));
        EXPECT_EQ(reason, "is a loop of symbolic links");
    }
    std::remove(a.c_str());
    std::remove(b.c_str());

    // A FIFO without a writer: refused at once, not waited on.
    const std::string fifo = ::testing::TempDir() + "/qv-bounded-fifo";
    std::remove(fifo.c_str());
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_FALSE(readFileUpTo(fifo, 100, FileKinds::RegularOnly, &reason));
    EXPECT_EQ(reason, "is not a regular file");
    std::remove(fifo.c_str());
}

TEST(BoundedFileReaderTest, ADescriptorIsReadToItsEndAndLeftOpen) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(write(ends[1], "abc", 3), 3);
    close(ends[1]);
    std::string reason;
    EXPECT_EQ(qv::readDescriptorUpTo(ends[0], 3, &reason), "abc");
    EXPECT_EQ(qv::readDescriptorUpTo(ends[0], 3, &reason), "") << "still open, at its end";
    close(ends[0]);
    EXPECT_FALSE(qv::readDescriptorUpTo(ends[0], 3, &reason));
    EXPECT_EQ(reason, "Bad file descriptor");
}

}  // namespace
