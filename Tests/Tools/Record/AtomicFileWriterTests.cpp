// A file is replaced whole or left as it was, and no temporary file stays behind.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "qvdevice/AtomicFileWriter.h"

namespace {

std::string contents(const std::filesystem::path& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

TEST(AtomicFileWriter, ReplacesWholeOrNotAtAllAndLeavesNoTemporaryFile) {
    auto directory =
        std::filesystem::temp_directory_path() / ("qv-atomic-" + std::to_string(::getpid()));
    std::filesystem::remove_all(directory);
    std::filesystem::create_directories(directory);
    auto target = directory / "story.json";
    std::string error;
    ASSERT_TRUE(qvdevice::writeFileAtomically(target.string(), "first\n", &error)) << error;
    EXPECT_EQ(contents(target), "first\n");
    std::string big(1 << 20, 'x');
    ASSERT_TRUE(qvdevice::writeFileAtomically(target.string(), big, &error)) << error;
    EXPECT_EQ(contents(target), big);

    // A directory in the way, or a missing one: refused with the path named, the old file kept.
    EXPECT_FALSE(qvdevice::writeFileAtomically(directory.string(), "x", &error));
    EXPECT_NE(error.find(directory.string()), std::string::npos) << error;
    EXPECT_FALSE(
        qvdevice::writeFileAtomically((directory / "no" / "story.json").string(), "x", &error));
    EXPECT_FALSE(qvdevice::canWriteFileAt((directory / "no" / "story.json").string(), &error));
    EXPECT_TRUE(qvdevice::canWriteFileAt(target.string(), &error));
    EXPECT_EQ(contents(target), big);
    std::size_t files = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(directory)) {
        ++files;
    }
    EXPECT_EQ(files, 1u);
    std::filesystem::remove_all(directory);
}

}  // namespace
