#pragma once

#include <gtest/gtest.h>

#include <clocale>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "archive_handles.h"
#include "hox/archive/archive.h"
#include "hox/testing/temp_dir.h"

namespace Hox::Archive {

/// The content of a folder: relative path to kind and content.
using Tree = std::map<std::string, std::string>;

/// One entry as an archive holds it.
struct StoredEntry {
    std::string name;
    mode_t type = AE_IFREG;
    std::string content{};  // of a link: its target
};

bool operator==(const StoredEntry& left, const StoredEntry& right);
void PrintTo(const StoredEntry& entry, std::ostream* out);

Tree treeOf(const std::filesystem::path& folder);
void writeFile(const std::filesystem::path& file, const std::string& content);
std::string readFile(const std::filesystem::path& file);

/// Bytes that no filter can compress; calls with the same arguments return the same bytes.
std::string incompressible(std::size_t length, unsigned seed = 1);

/// A folder with files of several sizes, nested and empty folders.
void fillSampleTree(const std::filesystem::path& folder);

/// packToBuffer into a string, with the buffer freed.
std::string packed(ArchiveFormat format, const std::filesystem::path& folder, bool stripBase = true,
                   bool diskOptions = false, std::size_t limit = 1U << 20U);

/// unpackBuffer of a string.
void unpackBytes(std::string bytes, const std::filesystem::path& folder);

/// The entries of an archive, in order, read by libarchive alone.
std::vector<StoredEntry> entriesOf(const std::string& bytes);
std::vector<std::string> namesOf(const std::string& bytes);

/// An archive made by libarchive alone: setUp chooses format and filter.
std::string foreignArchive(const std::function<void(::archive*)>& setUp,
                           const std::vector<StoredEntry>& entries);

/// The number of descriptors that the process has open.
std::size_t openDescriptors();

/// The text of the Err that the action throws. Fails the test if it throws nothing; other
/// exceptions propagate.
template <typename Err>
std::string textThrownBy(const std::function<void()>& action) {
    try {
        action();
    } catch (const Err& error) {
        return error.what();
    }
    ADD_FAILURE() << "nothing was thrown";
    return "";
}

/// Sets the locale's character type during its lifetime.
class ScopedCharacterType {
public:
    explicit ScopedCharacterType(const char* locale);
    ~ScopedCharacterType();
    ScopedCharacterType(const ScopedCharacterType&) = delete;
    ScopedCharacterType& operator=(const ScopedCharacterType&) = delete;
    ScopedCharacterType(ScopedCharacterType&&) = delete;
    ScopedCharacterType& operator=(ScopedCharacterType&&) = delete;

private:
    std::string m_former;
};

/// Provides folders for the source, the destination and archives. Checks that no descriptor stays
/// open and that the working directory does not change.
class ArchiveTest : public ::testing::Test {
protected:
    ArchiveTest();
    void TearDown() override;

    Testing::TempDir m_room;
    std::filesystem::path m_source = m_room / "source";
    std::filesystem::path m_destination = m_room / "destination";
    std::filesystem::path m_archive = m_room / "archive";
    std::size_t m_descriptors = openDescriptors();

private:
    std::filesystem::path m_workingDirectory = std::filesystem::current_path();
};

}  // namespace Hox::Archive
