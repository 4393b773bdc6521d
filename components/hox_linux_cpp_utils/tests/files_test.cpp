#include "hox/linutils/files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "hox/testing/file_calls.h"
#include "hox/testing/temp_dir.h"

namespace fs = std::filesystem;

namespace Hox::LinuxCppUtil {
namespace {

using Hox::Testing::Fault;
using Hox::Testing::FileCalls;
using testing::ElementsAre;
using testing::StartsWith;

/// Sets the umask during its lifetime.
class Umask {
public:
    explicit Umask(mode_t mask) : m_former(::umask(mask)) {}
    ~Umask() { ::umask(m_former); }
    Umask(const Umask&) = delete;
    Umask& operator=(const Umask&) = delete;
    Umask(Umask&&) = delete;
    Umask& operator=(Umask&&) = delete;

private:
    const mode_t m_former;
};

unsigned rightsOf(const fs::path& path) {
    return static_cast<unsigned>(fs::status(path).permissions());
}

/// The error that the action throws, otherwise "no error".
std::string errorOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const fs::filesystem_error& error) {
        return error.what();
    }
    return "no error";
}

class Files : public testing::Test {
protected:
    Hox::Testing::TempDir m_dir;
    const fs::path m_file = m_dir / "file";
};

TEST_F(Files, AreWrittenAndReadAsAWhole) {
    for (const std::string& text :
         {std::string("text"), std::string(), std::string(300000, 'x'), std::string("a\0b\n", 4)}) {
        writeFile(m_file, text);
        EXPECT_EQ(readFile(m_file), text);
    }
}

TEST_F(Files, AreReadWithoutWaitingForAPipe) {
    ASSERT_EQ(::mkfifo(m_file.c_str(), 0600), 0);
    EXPECT_EQ(readFile(m_file), "");
}

TEST_F(Files, AreForOwnerAndGroupAloneWhateverTheUmask) {
    for (const mode_t mask : {0U, 0022U, 0077U, 0777U}) {
        const Umask set(mask);
        EXPECT_TRUE(makeFolders(m_dir / "a/b"));
        writeFile(m_dir / "a/b/file", "x");
        EXPECT_EQ(rightsOf(m_dir / "a"), 0750U) << mask;
        EXPECT_EQ(rightsOf(m_dir / "a/b"), 0750U) << mask;
        EXPECT_EQ(rightsOf(m_dir / "a/b/file"), 0640U) << mask;
        removeFolder(m_dir / "a");
    }
}

TEST_F(Files, GetTheirRightsAlsoWhereTheyWereThere) {
    writeFile(m_file, "x");
    fs::permissions(m_file, fs::perms::all);
    writeFile(m_file, "y");
    EXPECT_EQ(rightsOf(m_file), 0640U);
    fs::create_directory(m_dir / "folder");
    fs::permissions(m_dir / "folder", fs::perms::all);
    EXPECT_FALSE(makeFolders(m_dir / "folder")) << "it was there";
    EXPECT_EQ(rightsOf(m_dir / "folder"), 0777U) << "of a folder they are somebody else's choice";
}

TEST_F(Files, TellWhatCannotBeDoneAndWhy) {
    const std::string missing = (m_dir / "missing/file").string();
    const std::string folder = m_dir.path().string();
    writeFile(m_file, "x");
    EXPECT_EQ(
        errorOf([&] { writeFile(missing, "x"); }),
        "filesystem error: cannot open for writing: No such file or directory [" + missing + "]");
    EXPECT_EQ(errorOf([&] { readFile(missing); }),
              "filesystem error: cannot open: No such file or directory [" + missing + "]");
    EXPECT_EQ(errorOf([&] { readFile(folder); }),
              "filesystem error: cannot read: Is a directory [" + folder + "]");
    EXPECT_EQ(errorOf([&] { makeFolders(m_file / "below/it"); }),
              "filesystem error: cannot make folder: Not a directory [" +
                  (m_file / "below/it").string() + "]");
    EXPECT_EQ(errorOf([&] { writeFile("/dev/full", "x"); }),
              "filesystem error: cannot write: No space left on device [/dev/full]");
    EXPECT_EQ(errorOf([&] { readFilesNamed("x", missing, {}); }),
              "filesystem error: cannot open: No such file or directory [" + missing + "]");
}

/// Fails every call of the action, one after the other.
class FailingFileCalls : public Files, public testing::WithParamInterface<int> {
protected:
    /// The errors of the action when each of its calls of that name fails.
    std::vector<std::string> errorsFor(const std::string& call,
                                       const std::function<void()>& action) const {
        std::vector<std::string> errors;
        const auto run = [&action] { return errorOf(action); };
        fs::remove_all(m_dir / "a");
        const auto calls = Hox::Testing::runWatched(run, FileCalls::All).calls;
        for (std::size_t number = 0; number < calls.size(); ++number) {
            if (calls[number].name == call) {
                fs::remove_all(m_dir / "a");
                errors.push_back(
                    Hox::Testing::runWatched(run, FileCalls::All, Fault{number, GetParam()})
                        .answer.value_or("the end of the process"));
            }
        }
        return errors;
    }
    std::string text(const char* what, const fs::path& path) const {
        return std::string("filesystem error: ") + what + ": " +
               std::generic_category().message(GetParam()) + " [" + path.string() + "]";
    }
};

TEST_P(FailingFileCalls, ShowInWriting) {
    const auto write = [this] { writeFile(m_file, "text"); };
    EXPECT_THAT(errorsFor("openat", write), ElementsAre(text("cannot open for writing", m_file)));
    EXPECT_THAT(errorsFor("fchmod", write), ElementsAre(text("cannot set rights of", m_file)));
    EXPECT_THAT(errorsFor("write", write), ElementsAre(text("cannot write", m_file)));
    EXPECT_THAT(errorsFor("close", write), ElementsAre(text("cannot close", m_file)));
}

TEST_P(FailingFileCalls, ShowInReading) {
    writeFile(m_file, "text");
    const auto read = [this] { readFile(m_file); };
    EXPECT_THAT(errorsFor("openat", read), ElementsAre(text("cannot open", m_file)));
    EXPECT_THAT(errorsFor("read", read), ElementsAre(text("cannot read", m_file)));
    EXPECT_THAT(errorsFor("newfstatat", read), ElementsAre(text("cannot get size of", m_file)));
}

TEST_P(FailingFileCalls, ShowInTheMakingOfFolders) {
    const fs::path folder = m_dir / "a/b";
    const auto make = [&folder] { makeFolders(folder); };
    EXPECT_THAT(errorsFor("mkdirat", make),
                ElementsAre(text("cannot make folder", folder),
                            text("cannot make folder", folder.parent_path()),
                            text("cannot make folder", folder)));
    EXPECT_THAT(errorsFor("fchmodat", make),
                ElementsAre(text("cannot set rights of", folder.parent_path()),
                            text("cannot set rights of", folder)));
}

TEST_P(FailingFileCalls, ShowInReadingAllOfAName) {
    const fs::path b = m_dir / "b";
    makeFolders(b / "c");
    writeFile(b / "c/data", "text");
    const auto read = [&b] { readFilesNamed("data", b, [](const auto&, const auto&) {}); };
    EXPECT_THAT(errorsFor("openat", read),
                ElementsAre(text("cannot open", b), text("cannot open", b / "c"),
                            text("cannot open", b / "c/data")));
    EXPECT_THAT(errorsFor("getdents64", read),
                ElementsAre(text("cannot list", b), text("cannot list", b),
                            text("cannot list", b / "c"), text("cannot list", b / "c")));
}

TEST_P(FailingFileCalls, ShowInRemoving) {
    const fs::path a = m_dir / "a";
    const auto remove = [&a] {
        makeFolders(a / "b");
        writeFile(a / "b/file", "text");
        removeFolder(a);
    };
    const bool isTriedAgain = GetParam() == EACCES;  // with rights
    const auto told = [&](const fs::path& path) {
        return isTriedAgain ? "no error" : text("cannot remove", path);
    };
    EXPECT_THAT(errorsFor("unlinkat", remove),
                ElementsAre(told(a / "b/file"), told(a / "b"), told(a)));
    const auto listed = [&](const fs::path& path) {
        return isTriedAgain ? "no error" : text("cannot list", path);
    };
    EXPECT_THAT(errorsFor("getdents64", remove),
                ElementsAre(listed(a), listed(a), listed(a / "b"), listed(a / "b")));
}

INSTANTIATE_TEST_SUITE_P(All, FailingFileCalls,
                         testing::Values(ENOSPC, EIO, EACCES, EROFS, EMFILE, EDQUOT));

TEST_F(Files, AreWrittenWholeWhereTheSystemTakesAPart) {
    const std::string text(1000, 'x');
    const auto write = [this, &text] {
        writeFile(m_file, text);
        return std::string("done");
    };
    const auto calls = Hox::Testing::runWatched(write, FileCalls::All).calls;
    for (std::size_t number = 0; number < calls.size(); ++number) {
        if (calls[number].name == "write") {
            fs::remove(m_file);
            const auto run = Hox::Testing::runWatched(write, FileCalls::All, Fault::half(number));
            EXPECT_EQ(run.calls.size(), calls.size() + 1) << "the rest in a call of its own";
            EXPECT_EQ(run.answer, "done");
            EXPECT_EQ(readFile(m_file), text);
            return;
        }
    }
    FAIL() << "nothing written";
}

TEST_F(Files, AreReadByNameAtAnyDepthInTheOrderOfTheNames) {
    makeFolders(m_dir / "a/b/data");
    makeFolders(m_dir / "a-b");
    for (const char* file : {"data", "a/data", "a/b/data/data", "a-b/data", "a/b/other"}) {
        writeFile(m_dir / file, file);
    }
    fs::create_directory_symlink(m_dir / "a", m_dir / "a/b/link");
    makeFolders(m_dir / "linked");
    fs::create_symlink(m_dir / "a/data", m_dir / "linked/data");
    makeFolders(m_dir / "lost");
    fs::create_symlink(m_dir / "nothing", m_dir / "lost/data");
    std::vector<std::string> seen;
    readFilesNamed("data", m_dir.path(), [&](const std::string& where, const std::string& text) {
        seen.push_back(where + " " + text);
    });
    EXPECT_THAT(seen, ElementsAre(" data", "/a a/data", "/a/b/data a/b/data/data", "/a-b a-b/data",
                                  "/linked a/data"));
}

TEST_F(Files, GoWithTheirFolder) {
    makeFolders(m_dir / "a/b/c");
    writeFile(m_dir / "a/b/file", "x");
    fs::create_directory_symlink(m_dir.path(), m_dir / "a/link");
    writeFile(m_file, "stays");
    removeFolder(m_dir / "a");
    removeFolder(m_dir / "a");
    EXPECT_FALSE(fs::exists(m_dir / "a"));
    EXPECT_EQ(readFile(m_file), "stays") << "what a link leads to";
}

/// Root has all rights everywhere, so another user must try.
TEST_F(Files, GoWithTheirFolderAlsoWhereTheirOwnerHasNoRights) {
    constexpr uid_t nobody = 65534;
    fs::permissions(m_dir.path(), fs::perms::all);
    const auto remove = [this] {
        if (::geteuid() == 0 && ::setresuid(nobody, nobody, nobody) != 0) {
            return std::string("cannot become somebody else");
        }
        makeFolders(m_dir / "a/none/below");
        writeFile(m_dir / "a/none/below/file", "x");
        makeFolders(m_dir / "a/read/below");
        fs::permissions(m_dir / "a/none/below", fs::perms::none);
        fs::permissions(m_dir / "a/none", fs::perms::none);
        fs::permissions(m_dir / "a/read", fs::perms::owner_read);
        fs::permissions(m_dir / "a", fs::perms::owner_read | fs::perms::owner_exec);
        return errorOf([this] { removeFolder(m_dir / "a"); });
    };
    EXPECT_EQ(Hox::Testing::runWatched(remove, FileCalls::None).answer, "no error");
    EXPECT_FALSE(fs::exists(m_dir / "a"));
}

TEST_F(Files, ThatCannotBeRemovedAreTold) {
    EXPECT_THAT(errorOf([] { removeFolder("/proc/self/fd"); }),
                StartsWith("filesystem error: cannot remove: "));
}

}  // namespace
}  // namespace Hox::LinuxCppUtil
