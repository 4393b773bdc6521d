#include "output_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
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

/// Files of this process cannot grow above this size.
class SizeLimit {
public:
    explicit SizeLimit(rlim_t bytes) : m_handler(std::signal(SIGXFSZ, SIG_IGN)) {
        ::getrlimit(RLIMIT_FSIZE, &m_former);
        const ::rlimit limit{bytes, m_former.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~SizeLimit() {
        ::setrlimit(RLIMIT_FSIZE, &m_former);
        std::signal(SIGXFSZ, m_handler);
    }
    SizeLimit(const SizeLimit&) = delete;
    SizeLimit& operator=(const SizeLimit&) = delete;

private:
    void (*m_handler)(int);
    ::rlimit m_former{};
};

TEST(OutputFile, AFullDiskLeavesTheFormerFile) {
    const Testing::TempDir folder;
    std::ofstream(folder / "file") << "former";
    const SizeLimit limit(3);
    EXPECT_THROW(writeWholeFile(folder / "file", "too much"), CtlError);
    EXPECT_EQ(contentOf(folder / "file"), "former");
    EXPECT_FALSE(fs::exists(fs::symlink_status(folder / "file.part")));
}

TEST(OutputFile, APartFileOfBeforeIsNotWritten) {
    const Testing::TempDir folder;
    std::ofstream(folder / "precious") << "precious";
    fs::create_symlink(folder / "precious", folder / "file.part");
    writeWholeFile(folder / "file", "x");
    EXPECT_EQ(contentOf(folder / "file") + contentOf(folder / "precious"), "xprecious");
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(folder / "file")));
}

TEST(OutputFile, ADeviceOrAPipeIsWrittenItself) {
    const Testing::TempDir folder;
    writeWholeFile("/dev/null", "x");
    EXPECT_TRUE(fs::is_character_file("/dev/null"));
    EXPECT_THROW(writeWholeFile("/dev/full", "x"), CtlError);
    const std::string pipe = folder / "pipe";
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    const int reader = ::open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(reader, 0);
    writeWholeFile(pipe, "x");
    char byte = 0;
    EXPECT_EQ(::read(reader, &byte, 1), 1);
    EXPECT_EQ(byte, 'x');
    ::close(reader);
}

TEST(OutputFile, ALinkToAFileStaysOne) {
    const Testing::TempDir folder;
    std::ofstream(folder / "file") << "former";
    fs::create_symlink("file", folder / "link");
    fs::create_symlink("none", folder / "dangling");
    for (const auto* const name : {"link", "dangling"}) {
        EXPECT_THROW(writeWholeFile(folder / name, "x"), CtlError) << name;
        EXPECT_TRUE(fs::is_symlink(folder / name)) << name;
    }
    EXPECT_EQ(contentOf(folder / "file"), "former");
}

}  // namespace

}  // namespace Hox::Ctl
