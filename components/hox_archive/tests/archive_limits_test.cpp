#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <sstream>

#include "archive_kit.h"
#include "hox/archive/archive.h"
#include "hox/archive/error/archive_error.h"

namespace Hox::Archive {
namespace {

namespace fs = std::filesystem;
using testing::IsEmpty;
using testing::MatchesRegex;

constexpr std::size_t emptyEstimate = 32 + 1536;

class ArchiveLimits : public ArchiveTest {
protected:
    /// Packs with exactly that limit and refuses with one byte less.
    void expectEstimate(std::size_t estimate) const {
        EXPECT_NO_THROW(packed(ArchiveFormat::TarGz, m_source, true, false, estimate));
        EXPECT_THAT(textThrownBy<ArchiveError>(
                        [&] { packed(ArchiveFormat::TarGz, m_source, true, false, estimate - 1); }),
                    MatchesRegex("Archiving error: the buffer is exceeding bufMaxSize"
                                 "\\(.*archive\\.cpp:[0-9]+\\)"));
    }

    /// A file that takes more in an archive than the one byte that it adds to the estimate.
    void writeSmallFile(unsigned number) const {
        std::ostringstream name;
        for (const char byte : incompressible(20, number)) {
            name << std::hex << (static_cast<unsigned>(byte) & 0xffU);
        }
        writeFile(m_source / name.str(), "1");
    }

    void writeManySmallFiles() const {
        for (unsigned number = 0; number < 300; ++number) {
            writeSmallFile(number);
        }
    }

    std::string overflowText(ArchiveFormat format) const {
        return textThrownBy<ArchiveError>([&] { packed(format, m_source); });
    }

    const std::string m_overflow = "Archiving error: Buffer exhausted\\(.*archive\\.cpp:[0-9]+\\)";
};

TEST_F(ArchiveLimits, AnEmptyFolderTakesOneFoldersRoom) {
    expectEstimate(emptyEstimate);
}

TEST_F(ArchiveLimits, TheFirstFolderCostsNothingMore) {
    fs::create_directory(m_source / "sub");
    expectEstimate(emptyEstimate);
}

TEST_F(ArchiveLimits, EachFurtherFolderCosts32Bytes) {
    fs::create_directories(m_source / "one/two/three");
    expectEstimate(3 * 32 + 1536);
}

TEST_F(ArchiveLimits, FilesCostTheirSizeInFoldersToo) {
    writeFile(m_source / "file", std::string(1000, 'x'));
    expectEstimate(1000 + emptyEstimate);
    writeFile(m_source / "sub/sub/file", std::string(234, 'x'));
    expectEstimate(1234 + 2 * 32 + 1536);
}

TEST_F(ArchiveLimits, ALargeFolderIsRefusedAlthoughItWouldFitOncePacked) {
    writeFile(m_source / "zeros", std::string(524288 - emptyEstimate, '\0'));
    EXPECT_LT(packed(ArchiveFormat::TarGz, m_source, true, false, 524288).size(), 2000U);
    writeFile(m_source / "one byte", "1");
    expectEstimate(524289);
}

TEST_F(ArchiveLimits, ALinkCostsWhatItLeadsTo) {
    writeFile(m_room / "target", std::string(500, 'x'));
    fs::create_symlink("../target", m_source / "to a file");
    expectEstimate(500 + emptyEstimate);
    fs::create_symlink("../destination", m_source / "to a folder");
    fs::create_symlink("../destination", m_source / "to a folder too");
    expectEstimate(500 + 2 * 32 + 1536);
}

TEST_F(ArchiveLimits, ASizeThatCannotBeToldMakesTheEstimateNothing) {
    writeFile(m_source / "file", std::string(5000, 'x'));
    fs::create_symlink("nowhere", m_source / "dangling");
    expectEstimate(1536);
    fs::remove(m_source / "dangling");
    ASSERT_EQ(::mkfifo((m_source / "pipe").c_str(), 0600), 0);
    expectEstimate(1536);
}

TEST_F(ArchiveLimits, AnUnderestimatedFolderEndsInAnErrorWhenItDoesNotFit) {
    writeFile(m_source / "file", incompressible(5000));
    fs::create_symlink("nowhere", m_source / "dangling");
    EXPECT_THAT(overflowText(ArchiveFormat::TarGz), MatchesRegex(m_overflow));
}

TEST_F(ArchiveLimits, ManySmallFilesOutgrowTheEstimateInEachFormat) {
    writeManySmallFiles();
    EXPECT_THAT(overflowText(ArchiveFormat::TarGz), MatchesRegex(m_overflow));
    EXPECT_THAT(overflowText(ArchiveFormat::TarBz2), MatchesRegex(m_overflow));
    EXPECT_THAT(overflowText(ArchiveFormat::Zip), MatchesRegex(m_overflow));
}

/// Adds files until the archive no longer fits and only closing the writer notices it: a returned
/// archive is always complete.
TEST_F(ArchiveLimits, WhatIsReturnedIsWholeUpToTheFirstOverflow) {
    for (const auto format : {ArchiveFormat::TarGz, ArchiveFormat::TarBz2, ArchiveFormat::Zip}) {
        bool overflown = false;
        for (unsigned count = 0; count < 120 && !overflown; ++count) {
            writeSmallFile(count);
            try {
                EXPECT_EQ(entriesOf(packed(format, m_source)).size(), count + 1);
            } catch (const ArchiveError& error) {
                overflown = true;
                EXPECT_THAT(error.what(), MatchesRegex(m_overflow));
            }
        }
        EXPECT_TRUE(overflown);
        fs::remove_all(m_source);
        fs::create_directory(m_source);
    }
}

TEST_F(ArchiveLimits, AFileHasNoLimit) {
    writeManySmallFiles();
    packToFile(ArchiveFormat::Zip, m_archive, m_source, true, false);
    EXPECT_EQ(entriesOf(readFile(m_archive)).size(), 300U);
}

TEST_F(ArchiveLimits, NoLimitBelowTheEstimateIsEnough) {
    for (const std::size_t limit : {std::size_t{0}, std::size_t{1}, emptyEstimate - 1}) {
        EXPECT_THROW(packed(ArchiveFormat::Zip, m_source, true, false, limit), ArchiveError);
    }
    EXPECT_THAT(entriesOf(packed(ArchiveFormat::Zip, m_source, true, false, SIZE_MAX)), IsEmpty());
}

}  // namespace
}  // namespace Hox::Archive
