#include "service_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "ctl_error.h"
#include "hox/testing/temp_dir.h"

namespace Hox::Ctl {

namespace {

namespace fs = std::filesystem;

/// The files of a service below a root of its own, with a secret beside them.
class ServiceFileTest : public ::testing::Test {
protected:
    ServiceFileTest() {
        fs::create_directories(m_root / "var/log/a");
        std::ofstream(m_root / "var/log/a/file") << "text";
        std::ofstream(m_root / "secret") << "secret";
    }

    std::optional<std::string> read(const std::string& name,
                                    const std::string& folder = "/var/log") {
        return readServiceFile(m_root.path(), folder, name);
    }

    Testing::TempDir m_root;
};

TEST_F(ServiceFileTest, IsReadBelowTheRoot) {
    EXPECT_EQ(read("a/file"), "text");
    EXPECT_EQ(read("none"), std::nullopt);
    EXPECT_EQ(read("file", "/none"), std::nullopt);
    EXPECT_EQ(readServiceFile("", m_root / "var", "log/a/file"), "text");
}

TEST_F(ServiceFileTest, TheFolderMayBeALinkInsideOfTheRoot) {
    fs::create_symlink("/var/log", m_root / "logs");
    EXPECT_EQ(read("a/file", "/logs"), "text");
}

TEST_F(ServiceFileTest, NoLinkIsFollowedBelowTheFolder) {
    fs::create_symlink(m_root / "secret", m_root / "var/log/link");
    fs::create_symlink("a", m_root / "var/log/folder");
    for (const auto* const name : {"link", "folder/file", "../../secret"}) {
        EXPECT_THROW(read(name), CtlError) << name;
    }
}

TEST_F(ServiceFileTest, APipeIsNotWaitedFor) {
    ASSERT_EQ(::mkfifo((m_root / "var/log/pipe").c_str(), 0600), 0);
    EXPECT_THROW(read("pipe"), CtlError);
    EXPECT_THROW(read("a"), CtlError);
}

}  // namespace

}  // namespace Hox::Ctl
