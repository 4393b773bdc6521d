#include "output_file.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "ctl_error.h"
#include "hox/testing/temp_dir.h"

namespace Hox::Ctl {

namespace {

namespace fs = std::filesystem;

std::string contentOf(const fs::path& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

TEST(OutputFile, ReplacesAFileAsAWhole) {
    const Testing::TempDir folder;
    std::ofstream(folder / "file") << "former";
    writeWholeFile(folder / "file", std::string("a\0b", 3));
    EXPECT_EQ(contentOf(folder / "file"), std::string("a\0b", 3));
    EXPECT_FALSE(fs::exists(folder / "file.part"));
}

TEST(OutputFile, LeavesNothingBehindIfItFails) {
    const Testing::TempDir folder;
    fs::create_directories(folder / "folder/full");
    EXPECT_THROW(writeWholeFile(folder / "folder", "x"), CtlError);
    EXPECT_FALSE(fs::exists(folder / "folder.part"));
    EXPECT_THROW(writeWholeFile(folder / "none/file", "x"), CtlError);
}

TEST(OutputFile, AFullDiskLeavesTheFormerFile) {
    const Testing::TempDir folder;
    std::ofstream(folder / "file") << "former";
    fs::create_symlink("/dev/full", folder / "file.part");
    EXPECT_THROW(writeWholeFile(folder / "file", "x"), CtlError);
    EXPECT_EQ(contentOf(folder / "file"), "former");
    EXPECT_FALSE(fs::exists(fs::symlink_status(folder / "file.part")));
}

}  // namespace

}  // namespace Hox::Ctl
