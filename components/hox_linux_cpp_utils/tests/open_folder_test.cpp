#include "hox/linutils/open_folder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "hox/linutils/files.h"
#include "hox/testing/temp_dir.h"

namespace fs = std::filesystem;

namespace Hox::LinuxCppUtil {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::Field;

auto entry(const std::string& name, fs::file_type type) {
    return AllOf(Field(&OpenFolder::Entry::name, name), Field(&OpenFolder::Entry::type, type));
}

class OpenFolderTest : public testing::Test {
protected:
    Hox::Testing::TempDir m_dir;
    const OpenFolder m_folder{m_dir.path()};
};

TEST_F(OpenFolderTest, ListsItsEntriesInTheOrderOfTheirNames) {
    fs::create_symlink("b", m_dir / "c");
    fs::create_directory(m_dir / "b");
    writeFile(m_dir / "a", "x");
    EXPECT_THAT(m_folder.list(), ElementsAre(entry("a", fs::file_type::regular),
                                             entry("b", fs::file_type::directory),
                                             entry("c", fs::file_type::symlink)));
}

TEST_F(OpenFolderTest, ListsMoreEntriesThanTheSystemGivesAtOnce) {
    constexpr std::size_t count = 3000;
    for (std::size_t number = 0; number < count; ++number) {
        writeFile(m_dir / ("some_file_with_a_name_" + std::to_string(number)), "");
    }
    EXPECT_EQ(m_folder.list().size(), count);
}

TEST_F(OpenFolderTest, IsTheSameFolderWhateverItsPathLeadsTo) {
    fs::rename(m_dir.path(), m_dir.path().string() + ".moved");
    m_folder.makeFolder("a");
    m_folder.writeFile("a/new", "text");
    m_folder.rename("a/new", "a/file");
    EXPECT_EQ(m_folder.below("a").readFile("file"), "text");
    EXPECT_FALSE(fs::exists(m_dir.path()));
    fs::rename(m_dir.path().string() + ".moved", m_dir.path());
    EXPECT_EQ(readFile(m_dir / "a/file"), "text");
}

TEST_F(OpenFolderTest, OpensNoFolderThroughALink) {
    fs::create_directory(m_dir / "a");
    fs::create_symlink("a", m_dir / "b");
    EXPECT_EQ(m_folder.below("a").path(), (m_dir / "a").string());
    EXPECT_THROW(m_folder.below("b"), fs::filesystem_error);
}

TEST_F(OpenFolderTest, RemovesWhatIsThereOnly) {
    m_folder.writeFile("a", "x");
    m_folder.makeFolder("b");
    m_folder.removeFile("a");
    m_folder.removeFile("a");
    m_folder.removeEmptyFolder("b");
    m_folder.removeEmptyFolder("b");
    EXPECT_TRUE(fs::is_empty(m_dir.path()));
}

}  // namespace
}  // namespace Hox::LinuxCppUtil
