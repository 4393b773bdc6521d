#include "hox/testing/file_calls.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "hox/testing/temp_dir.h"

namespace fs = std::filesystem;

namespace Hox::Testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class FileCallsTest : public ::testing::Test {
protected:
    /// Creates a folder and a file in it, reads the file and renames it.
    std::string work() const {
        if (mkdir(path("a").c_str(), 0700) != 0) {
            return "mkdir " + std::to_string(errno);
        }
        const int file = open(path("a/b").c_str(), O_WRONLY | O_CREAT, 0600);
        if (file < 0) {
            return "open " + std::to_string(errno);
        }
        const ssize_t written = write(file, "x", 1);
        close(file);
        close(open(path("a/b").c_str(), O_RDONLY | O_CLOEXEC));
        sync();
        return rename(path("a/b").c_str(), path("a/c").c_str()) == 0
                   ? "done " + std::to_string(written)
                   : "rename " + std::to_string(errno);
    }
    std::string path(const std::string& name) const { return (m_dir / name).string(); }

    WatchedRun run(FileCalls listed, const std::optional<Fault>& fault = std::nullopt) const {
        return runWatched([this] { return work(); }, listed, fault);
    }

    static std::vector<std::string> names(const WatchedRun& run) {
        std::vector<std::string> names;
        for (const auto& call : run.calls) {
            names.push_back(call.name);
        }
        return names;
    }

    TempDir m_dir;
};

TEST_F(FileCallsTest, AreListedInTheirOrder) {
    const auto seen = run(FileCalls::Changing);
    EXPECT_THAT(names(seen), ElementsAre("mkdir", "openat", "write", "sync", "rename"));
    EXPECT_EQ(seen.calls.at(1).path, path("a/b"));
    EXPECT_EQ(seen.calls.at(2).path, path("a/b"));
    EXPECT_EQ(seen.calls.at(4).path, path("a/b"));
    EXPECT_EQ(seen.answer, "done 1");
    EXPECT_EQ(seen.signal, 0);
    EXPECT_TRUE(fs::exists(m_dir / "a/c"));
}

TEST_F(FileCallsTest, CountOpensForReadingOnDemand) {
    const auto seen = run(FileCalls::ChangingAndOpening);
    EXPECT_THAT(names(seen), ElementsAre("mkdir", "openat", "write", "openat", "sync", "rename"));
    EXPECT_TRUE(seen.calls.at(1).changes);
    EXPECT_FALSE(seen.calls.at(3).changes);
}

TEST_F(FileCallsTest, AreAllThatHaveToDoWithFilesOnDemand) {
    ASSERT_EQ(mkdir(path("d").c_str(), 0700), 0);
    const auto look = [this] {
        const int folder = open(path("d").c_str(), O_RDONLY | O_DIRECTORY);
        const int file = openat(folder, "e", O_RDWR | O_CREAT, 0600);
        char byte = 0;
        struct stat status {};
        const ssize_t got = read(file, &byte, 1);
        fstatat(folder, "e", &status, 0);
        fstat(file, &status);
        syncfs(folder);
        close(file);
        return std::to_string(got);
    };
    const auto seen = runWatched(look, FileCalls::All);
    EXPECT_THAT(names(seen), ElementsAre("openat", "openat", "read", "newfstatat", "newfstatat",
                                         "syncfs", "close"));
    const std::vector<std::string> paths = {"d", "d/e", "d/e", "d/e", "d/e", "d", "d/e"};
    const std::vector<bool> changes = {false, true, false, false, false, true, false};
    ASSERT_EQ(seen.calls.size(), paths.size());
    for (std::size_t number = 0; number < paths.size(); ++number) {
        EXPECT_EQ(seen.calls[number].path, path(paths[number])) << number;
        EXPECT_EQ(seen.calls[number].changes, changes[number]) << number;
    }
    EXPECT_EQ(runWatched(look, FileCalls::All, Fault{2, EIO}).answer, "-1");
}

TEST_F(FileCallsTest, AreWrittenByHalfOnDemand) {
    const auto write = [this] {
        const int file = open(path("f").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        const ssize_t first = ::write(file, "12345678", 8);
        return std::to_string(first) + " " + std::to_string(::write(file, "abc", 3));
    };
    const auto seen = runWatched(write, FileCalls::Changing, Fault::half(1));
    EXPECT_THAT(names(seen), ElementsAre("openat", "write", "write"));
    EXPECT_EQ(seen.answer, "4 3");
    std::ifstream file(path("f"));
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), "1234abc");
}

TEST_F(FileCallsTest, AreNotWritesToPipes) {
    const auto seen = runWatched(
        [] {
            int ends[2] = {-1, -1};
            return pipe(ends) == 0 && write(ends[1], "x", 1) == 1 ? "written" : "failed";
        },
        FileCalls::Changing);
    EXPECT_THAT(seen.calls, IsEmpty());
    EXPECT_EQ(seen.answer, "written");
}

TEST_F(FileCallsTest, GoUnlistedOnDemand) {
    const auto seen = run(FileCalls::None);
    EXPECT_THAT(names(seen), ElementsAre("sync"));
    EXPECT_EQ(seen.answer, "done 1");
}

TEST_F(FileCallsTest, WaitWhileTheParentLooks) {
    std::vector<bool> there;
    runWatched([this] { return work(); }, FileCalls::Changing, std::nullopt,
               [&](std::size_t number, const FileCall&) {
                   EXPECT_EQ(number, there.size());
                   there.push_back(fs::exists(m_dir / "a/b"));
               });
    EXPECT_THAT(there, ElementsAre(false, false, true, true, true));
}

TEST_F(FileCallsTest, EndTheChildBeforeTheyAreMade) {
    const auto seen = run(FileCalls::Changing, Fault{1, 0});
    EXPECT_THAT(names(seen), ElementsAre("mkdir", "openat"));
    EXPECT_EQ(seen.signal, SIGKILL);
    EXPECT_EQ(seen.answer, std::nullopt);
    EXPECT_TRUE(fs::exists(m_dir / "a"));
    EXPECT_FALSE(fs::exists(m_dir / "a/b"));
}

TEST_F(FileCallsTest, FailOnDemandWithoutBeingMade) {
    EXPECT_EQ(run(FileCalls::Changing, Fault{0, ENOSPC}).answer, "mkdir " + std::to_string(ENOSPC));
    EXPECT_FALSE(fs::exists(m_dir / "a"));
    EXPECT_EQ(run(FileCalls::Changing, Fault{4, EIO}).answer, "rename " + std::to_string(EIO));
    EXPECT_TRUE(fs::exists(m_dir / "a/b"));
}

TEST_F(FileCallsTest, FailAgainOnDemand) {
    const auto twice = [this] {
        const int first = mkdir(path("a").c_str(), 0700);
        return std::to_string(first) + " " + std::to_string(mkdir(path("a").c_str(), 0700));
    };
    EXPECT_EQ(runWatched(twice, FileCalls::Changing, Fault{0, EIO}).answer, "-1 0");
    fs::remove(m_dir / "a");
    EXPECT_EQ(runWatched(twice, FileCalls::Changing, Fault{0, EIO, true}).answer, "-1 -1");
}

TEST(WatchedRun, TellsHowTheChildHasEnded) {
    const auto aborted = runWatched(
        []() -> std::string {
            std::fputs("last words\n", stderr);
            std::abort();
        },
        FileCalls::Changing);
    EXPECT_EQ(aborted.signal, SIGABRT);
    EXPECT_EQ(aborted.errors, "last words\n");
    EXPECT_EQ(aborted.answer, std::nullopt);
    const auto thrown = runWatched([]() -> std::string { throw std::runtime_error("a text"); },
                                   FileCalls::Changing);
    EXPECT_EQ(thrown.signal, 0);
    EXPECT_EQ(thrown.answer, std::nullopt);
    EXPECT_EQ(thrown.errors, "exception: a text\n");
    EXPECT_THAT(thrown.calls, IsEmpty());
}

}  // namespace
}  // namespace Hox::Testing
