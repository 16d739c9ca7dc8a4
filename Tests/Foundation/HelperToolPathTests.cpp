// Where the framework finds the helper programs it starts: beside the resources (build tree,
// development directory), else in the libexec directory of an installed tree.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "Foundation/Platform.h"

namespace {

namespace fs = std::filesystem;

class InstalledTree {
  public:
    InstalledTree() {
        std::string pattern = (fs::temp_directory_path() / "qv-helpers-XXXXXX").string();
        root_ = mkdtemp(pattern.data());
        resources_ = root_ / "share/QVDeviceObserver/Resources";
        libexec_ = (resources_ / QV_LIBEXEC_FROM_RESOURCES).lexically_normal();
        fs::create_directories(resources_);
        fs::create_directories(libexec_);
    }
    ~InstalledTree() {
        qv::Bundle::setResourcesDirectory(std::nullopt);
        fs::remove_all(root_);
    }
    InstalledTree(const InstalledTree&) = delete;
    InstalledTree& operator=(const InstalledTree&) = delete;

    const fs::path& resources() const { return resources_; }
    const fs::path& libexec() const { return libexec_; }

  private:
    fs::path root_;
    fs::path resources_;
    fs::path libexec_;
};

void touch(const fs::path& path) {
    std::ofstream(path) << "#!/bin/sh\n";
}

TEST(HelperToolPath, InstalledToolsAreFoundFromTheResourcesDirectory) {
    InstalledTree tree;
    // The libexec directory is another directory than the resources one.
    ASSERT_NE(tree.libexec(), tree.resources());
    qv::Bundle::setResourcesDirectory(tree.resources().string());

    touch(tree.libexec() / "qv-unmount-disk");
    EXPECT_EQ(qv::Bundle::pathForHelperTool("qv-unmount-disk"),
              (tree.libexec() / "qv-unmount-disk").string());

    // A copy beside the resources wins: that is the build tree's and a developer's layout.
    touch(tree.resources() / "qv-unmount-disk");
    EXPECT_EQ(qv::Bundle::pathForHelperTool("qv-unmount-disk"),
              (tree.resources() / "qv-unmount-disk").string());

    // Neither: the path beside the resources, which does not exist (the caller reports it).
    EXPECT_EQ(qv::Bundle::pathForHelperTool("CardPrepTool"),
              (tree.resources() / "CardPrepTool").string());
    // A directory of that name is not a program.
    fs::create_directory(tree.libexec() / "Folder");
    EXPECT_EQ(qv::Bundle::pathForHelperTool("Folder"), (tree.resources() / "Folder").string());
    // Names never lead out of either directory.
    EXPECT_EQ(qv::Bundle::pathForHelperTool("../libexec"),
              tree.resources().string() + "/(invalid)");
}

}  // namespace
