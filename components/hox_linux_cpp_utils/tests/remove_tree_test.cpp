#include "hox/linutils/remove_tree.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <string>
#include <system_error>
#include <utility>

#include "hox/testing/file_calls.h"
#include "hox/testing/skip_outside_ci.h"
#include "hox/testing/temp_dir.h"

namespace fs = std::filesystem;

namespace Hox::LinuxCppUtil {
namespace {

using ::testing::HasSubstr;

constexpr uid_t nobody = 65534;

void writeFile(const fs::path& file) {
    fs::create_directories(file.parent_path());
    std::ofstream(file) << "content";
}

/// A folder in a folder and so on; the path of the innermost may be longer than a path may be.
void makeDeepTree(const fs::path& root, int depth) {
    int current = ::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int level = 0; level < depth; ++level) {
        ASSERT_EQ(::mkdirat(current, "level", 0777), 0) << level;
        const int next = ::openat(current, "level", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ::close(current);
        current = next;
    }
    ::close(::openat(current, "file", O_CREAT | O_WRONLY | O_CLOEXEC, 0666));
    ::close(current);
}

/// Leaves the process so many descriptors beyond those that it has, as long as it lives.
class FewDescriptors {
public:
    explicit FewDescriptors(rlim_t more) {
        ::getrlimit(RLIMIT_NOFILE, &m_former);
        const int next = ::open("/", O_RDONLY | O_CLOEXEC);
        ::close(next);
        const rlimit few{static_cast<rlim_t>(next) + more, m_former.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &few);
    }
    ~FewDescriptors() { ::setrlimit(RLIMIT_NOFILE, &m_former); }
    FewDescriptors(const FewDescriptors&) = delete;
    FewDescriptors& operator=(const FewDescriptors&) = delete;
    FewDescriptors(FewDescriptors&&) = delete;
    FewDescriptors& operator=(FewDescriptors&&) = delete;

private:
    rlimit m_former{};
};

class RemoveTree : public ::testing::Test {
protected:
    /// The error that the removal of the path ends in.
    static fs::filesystem_error errorOf(const fs::path& path) {
        try {
            removeTree(path);
        } catch (const fs::filesystem_error& error) {
            return error;
        }
        return {"nothing was thrown", {}};
    }

    /// Removes the tree without what root may do beyond others; returns the text of the error.
    std::string removeAsNobody() const {
        const auto run = Hox::Testing::runWatched(
            [this]() -> std::string {
                if (::geteuid() == 0 &&
                    (::setgroups(0, nullptr) != 0 || ::setresgid(nobody, nobody, nobody) != 0 ||
                     ::setresuid(nobody, nobody, nobody) != 0)) {
                    return "still root";
                }
                return errorOf(m_root).what();
            },
            Hox::Testing::FileCalls::None);
        return run.answer.value_or(run.errors);
    }

    static void giveToNobody(const fs::path& path) {
        if (::geteuid() == 0) {
            ASSERT_EQ(::chown(path.c_str(), nobody, nobody), 0);
        }
    }

    /// In memory: thousands of entries are made.
    Hox::Testing::TempDir m_dir{"/dev/shm"};
    const fs::path m_root = m_dir / "root";
};

TEST_F(RemoveTree, RemovesFilesLinksAndDirectories) {
    writeFile(m_dir / "outside/kept");
    writeFile(m_root / "file");
    writeFile(m_root / "a/b/file");
    fs::create_directories(m_root / "a/empty");
    fs::create_symlink(m_dir / "outside", m_root / "a/link");
    fs::create_symlink("nowhere", m_root / "dangling");
    ASSERT_EQ(::mkfifo((m_root / "pipe").c_str(), 0600), 0);
    removeTree(m_root);
    EXPECT_FALSE(fs::exists(m_root));
    EXPECT_TRUE(fs::exists(m_dir / "outside/kept"));
}

TEST_F(RemoveTree, RemovesWhatIsNoDirectory) {
    writeFile(m_dir / "outside/kept");
    writeFile(m_root);
    removeTree(m_root);
    EXPECT_FALSE(fs::exists(m_root));
    for (const char* target : {"outside", "nowhere"}) {
        fs::create_symlink(target, m_root);
        removeTree(m_root);
        EXPECT_FALSE(fs::exists(fs::symlink_status(m_root))) << target;
    }
    fs::create_symlink("outside", m_root);
    removeTree(m_root.string() + "/");
    EXPECT_FALSE(fs::exists(fs::symlink_status(m_root)));
    EXPECT_TRUE(fs::exists(m_dir / "outside/kept"));
}

TEST_F(RemoveTree, HasNothingToDoWhereNothingIs) {
    EXPECT_NO_THROW(removeTree(m_root));
    EXPECT_NO_THROW(removeTree(m_root / "below/nothing"));
}

TEST_F(RemoveTree, RemovesMoreEntriesThanAreReadAtOnce) {
    for (int number = 0; number < 3000; ++number) {
        fs::create_directories(m_root / ("folder" + std::to_string(number)));
        writeFile(m_root / ("file" + std::to_string(number)));
    }
    removeTree(m_root);
    EXPECT_FALSE(fs::exists(m_root));
}

/// The names add up to 18,000 bytes.
TEST_F(RemoveTree, NeedsTwoDescriptorsHoweverDeepTheTreeIs) {
    fs::create_directory(m_root);
    ASSERT_NO_FATAL_FAILURE(makeDeepTree(m_root, 3000));
    const FewDescriptors two(2);
    removeTree(m_root);
    EXPECT_FALSE(fs::exists(m_root));
}

TEST_F(RemoveTree, SaysWhatCannotBeRemoved) {
    writeFile(m_root / "a/file");
    const auto below = errorOf(m_root / "a/file/x");
    EXPECT_EQ(below.code().value(), ENOTDIR);
    EXPECT_EQ(below.path1(), m_root / "a/file/x");
    {
        const FewDescriptors one(1);
        const auto second = errorOf(m_root);
        EXPECT_EQ(second.code().value(), EMFILE);
        EXPECT_EQ(second.path1(), m_root / "a");
    }
    EXPECT_TRUE(fs::exists(m_root / "a/file"));
}

TEST_F(RemoveTree, TakesTheRightsThatADirectoryDoesNotGiveItsOwner) {
    for (const fs::path& folder :
         {m_root, m_root / "none", m_root / "none/read", m_root / "search", m_root / "read"}) {
        fs::create_directory(folder);
        writeFile(folder / "file");
        giveToNobody(folder);
    }
    giveToNobody(m_dir.path());
    for (const auto& [folder, mode] : {std::pair{m_root / "none/read", 0555},
                                       {m_root / "none", 0},
                                       {m_root / "search", 0111},
                                       {m_root / "read", 0444},
                                       {m_root, 0555}}) {
        fs::permissions(folder, static_cast<fs::perms>(mode));
    }
    EXPECT_THAT(removeAsNobody(), HasSubstr("nothing was thrown"));
    EXPECT_FALSE(fs::exists(m_root));
}

TEST_F(RemoveTree, SaysWhatBelongsToAnother) {
    if (::geteuid() != 0) {
        Testing::skipOutsideCi("needs a second user");
        return;
    }
    writeFile(m_root / "theirs/file");
    giveToNobody(m_dir.path());
    giveToNobody(m_root);
    EXPECT_THAT(removeAsNobody(), HasSubstr("cannot remove: Permission denied [" +
                                            (m_root / "theirs/file").string() + "]"));
    EXPECT_TRUE(fs::exists(m_root / "theirs/file"));
}

/// Beside the new place of the directory lies something of the name that is to be removed next.
TEST_F(RemoveTree, StopsWhenADirectoryIsMovedAway) {
    writeFile(m_root / "a/b/file");
    writeFile(m_root / "a/same");
    writeFile(m_dir / "elsewhere/same");
    bool isMoved = false;
    const auto run = Hox::Testing::runWatched(
        [this] {
            const auto error = errorOf(m_root);
            return std::to_string(error.code().value()) + " " + error.path1().string();
        },
        Hox::Testing::FileCalls::ChangingAndOpening, std::nullopt,
        [this, &isMoved](std::size_t /*number*/, const Hox::Testing::FileCall& call) {
            if (call.path == m_root / "a/b/.." && !isMoved) {
                isMoved = true;
                fs::rename(m_root / "a/b", m_dir / "elsewhere/b");
            }
        });
    EXPECT_TRUE(isMoved);
    ASSERT_TRUE(run.answer) << run.errors;
    EXPECT_THAT(*run.answer, HasSubstr(std::to_string(ESTALE) + " " + m_root.string()));
    EXPECT_TRUE(fs::exists(m_dir / "elsewhere/same"));
    EXPECT_TRUE(fs::exists(m_dir / "elsewhere/b"));
}

}  // namespace
}  // namespace Hox::LinuxCppUtil
