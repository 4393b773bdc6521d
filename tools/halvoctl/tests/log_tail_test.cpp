#include "log_tail.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "ctl_error.h"
#include "hox/testing/temp_dir.h"

namespace Hox::Ctl {

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

class LogTailTest : public ::testing::Test {
protected:
    void append(const std::string& text) const {
        std::ofstream(m_path, std::ios::app | std::ios::binary) << text;
    }

    Testing::TempDir m_folder;
    fs::path m_path = m_folder / "log";
};

TEST_F(LogTailTest, BeginsWithTheLastLines) {
    append("1\n2\n3\n");
    EXPECT_EQ(LogTail(m_path).last(2), (Lines{"2", "3"}));
    EXPECT_EQ(LogTail(m_path).last(9), (Lines{"1", "2", "3"}));
    EXPECT_EQ(LogTail(m_path).last(0), Lines{});
}

TEST_F(LogTailTest, GoesOnWithCompleteLines) {
    append("1\n2");
    LogTail tail(m_path);
    EXPECT_EQ(tail.last(9), Lines{"1"});
    EXPECT_EQ(tail.next(), Lines{});
    append("2\n3\n\n4");
    EXPECT_EQ(tail.next(), (Lines{"22", "3", ""}));
}

TEST_F(LogTailTest, FollowsARotation) {
    append("1\n");
    LogTail tail(m_path);
    tail.last(9);
    append("2\n");
    fs::rename(m_path, m_folder / "log.1");
    EXPECT_EQ(tail.next(), Lines{"2"});
    std::ofstream(m_folder / "log.1", std::ios::app) << "3\n";
    append("4\n");
    EXPECT_EQ(tail.next(), (Lines{"3", "4"}));
    append("5\n");
    EXPECT_EQ(tail.next(), Lines{"5"});
}

TEST_F(LogTailTest, FollowsAFileThatIsEmptied) {
    append("1\n2\n3\n");
    LogTail tail(m_path);
    tail.last(9);
    fs::resize_file(m_path, 0);
    append("4\n");
    EXPECT_EQ(tail.next(), Lines{"4"});
}

TEST_F(LogTailTest, AMissingFileIsAnError) {
    EXPECT_THROW(LogTail(m_folder / "none"), CtlError);
}

}  // namespace

}  // namespace Hox::Ctl
