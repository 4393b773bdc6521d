#include "hox/archive/archive.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <type_traits>

#include "archive_kit.h"
#include "hox/archive/error/archive_error.h"
#include "hox/cpputil/error/file_system_error.h"
#include "hox/cpputil/error/invalid_argument_error.h"

namespace Hox::Archive {
namespace {

namespace fs = std::filesystem;
using CppUtil::FileSystemError;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::UnorderedElementsAre;

constexpr auto unknownFormat = static_cast<ArchiveFormat>(3);

std::string archiveError(const std::string& message) {
    return "Archiving error: " + message + "\\(.*archive\\.cpp:[0-9]+\\)";
}

std::string fileSystemError(const std::string& message) {
    return "IOErrorr: Generic filesystem Error: " + message + "\\(.*archive\\.cpp:[0-9]+\\)";
}

struct FormatCase {
    const char* name;
    ArchiveFormat format;
    int number;
    int filter;
    std::string firstBytes;
    const char* pythonModule;
};

void PrintTo(const FormatCase& formatCase, std::ostream* out) {
    *out << formatCase.name;
}

class Formats : public ArchiveTest, public testing::WithParamInterface<FormatCase> {};

INSTANTIATE_TEST_SUITE_P(Archive, Formats,
                         testing::Values(FormatCase{"TarGz", ArchiveFormat::TarGz, 0,
                                                    ARCHIVE_FILTER_GZIP, "\x1f\x8b", "tarfile"},
                                         FormatCase{"TarBz2", ArchiveFormat::TarBz2, 1,
                                                    ARCHIVE_FILTER_BZIP2, "BZh", "tarfile"},
                                         FormatCase{"Zip", ArchiveFormat::Zip, 2,
                                                    ARCHIVE_FILTER_NONE, "PK\x03\x04", "zipfile"}),
                         [](const auto& test) { return test.param.name; });

TEST_P(Formats, HasItsNumber) {
    EXPECT_EQ(static_cast<int>(GetParam().format), GetParam().number);
}

TEST_P(Formats, UnpacksWhatItPackedInMemory) {
    fillSampleTree(m_source);
    unpackBytes(packed(GetParam().format, m_source), m_destination);
    EXPECT_EQ(treeOf(m_destination), treeOf(m_source));
}

TEST_P(Formats, UnpacksWhatItPackedInAFile) {
    fillSampleTree(m_source);
    packToFile(GetParam().format, m_archive, m_source, true, false);
    unpackFile(m_archive, m_room / "made by unpacking");
    EXPECT_EQ(treeOf(m_room / "made by unpacking"), treeOf(m_source));
}

TEST_P(Formats, FileAndMemoryAreExchangeable) {
    fillSampleTree(m_source);
    packToFile(GetParam().format, m_archive, m_source, true, false);
    unpackBytes(readFile(m_archive), m_destination);
    EXPECT_EQ(treeOf(m_destination), treeOf(m_source));
    writeFile(m_room / "from memory", packed(GetParam().format, m_source));
    unpackFile(m_room / "from memory", m_room / "second");
    EXPECT_EQ(treeOf(m_room / "second"), treeOf(m_source));
}

TEST_P(Formats, IsWhatItsNameSays) {
    fillSampleTree(m_source);
    const auto bytes = packed(GetParam().format, m_source);
    EXPECT_EQ(bytes.substr(0, GetParam().firstBytes.size()), GetParam().firstBytes);
    const auto reader = newReader();
    ASSERT_EQ(archive_read_open_memory(reader.get(), bytes.data(), bytes.size()), ARCHIVE_OK);
    EXPECT_EQ(archive_filter_code(reader.get(), 0), GetParam().filter);
    const auto format =
        GetParam().format == ArchiveFormat::Zip ? ARCHIVE_FORMAT_ZIP : ARCHIVE_FORMAT_TAR;
    ::archive_entry* entry = nullptr;
    while (archive_read_next_header(reader.get(), &entry) == ARCHIVE_OK) {
        EXPECT_EQ(archive_format(reader.get()) & ARCHIVE_FORMAT_BASE_MASK, format);
    }
}

TEST_P(Formats, IsReadByOtherPrograms) {
    fillSampleTree(m_source);
    packToFile(GetParam().format, m_archive, m_source, true, false);
    const auto command = std::string("/usr/bin/python3 -m ") + GetParam().pythonModule + " -e " +
                         m_archive.string() + " " + m_destination.string();
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
    EXPECT_EQ(treeOf(m_destination), treeOf(m_source));
}

TEST_P(Formats, HasNoEntryForAnEmptyFolder) {
    EXPECT_THAT(entriesOf(packed(GetParam().format, m_source)), IsEmpty());
    unpackBytes(packed(GetParam().format, m_source), m_destination);
    EXPECT_THAT(treeOf(m_destination), IsEmpty());
}

TEST_P(Formats, StoresNamesBelowTheFolder) {
    writeFile(m_source / "file", "1");
    writeFile(m_source / "sub/file", "2");
    EXPECT_THAT(namesOf(packed(GetParam().format, m_source)),
                UnorderedElementsAre("file", "sub/", "sub/file"));
}

TEST_P(Formats, StoresWholePathsOnDemand) {
    writeFile(m_source / "file", "1");
    writeFile(m_source / "sub/file", "2");
    const auto base = fs::canonical(m_source).string();
    const auto bytes = packed(GetParam().format, m_source, false);
    EXPECT_THAT(namesOf(bytes), UnorderedElementsAre(base + "/", base + "/file", base + "/sub/",
                                                     base + "/sub/file"));
    unpackBytes(bytes, m_destination);
    EXPECT_EQ(treeOf(m_destination.string() + base), treeOf(m_source));
}

TEST_P(Formats, DiskOptionsChangeNothing) {
    fillSampleTree(m_source);
    const auto entries = entriesOf(packed(GetParam().format, m_source, true, false));
    EXPECT_EQ(entriesOf(packed(GetParam().format, m_source, true, true)), entries);
    packToFile(GetParam().format, m_archive, m_source, true, true);
    EXPECT_EQ(entriesOf(readFile(m_archive)), entries);
}

TEST_P(Formats, KeepsLinksAsLinks) {
    writeFile(m_source / "sub/file", "content");
    fs::create_symlink("sub", m_source / "to a folder");
    fs::create_symlink("nowhere", m_source / "dangling");
    unpackBytes(packed(GetParam().format, m_source), m_destination);
    EXPECT_EQ(treeOf(m_destination), treeOf(m_source));
}

TEST_P(Formats, KeepsHolesAndWhatIsBehindThem) {
    writeFile(m_source / "holes", "begin");
    fs::resize_file(m_source / "holes", 300000);
    std::ofstream(m_source / "holes", std::ios::app) << "end";
    unpackBytes(packed(GetParam().format, m_source), m_destination);
    EXPECT_TRUE(treeOf(m_destination) == treeOf(m_source));
}

TEST_P(Formats, KeepsNamesOutsideOfAscii) {
    for (const char* locale : {"C", "C.UTF-8"}) {
        const ScopedCharacterType type(locale);
        writeFile(m_source / "Größe/наме", "content");
        unpackBytes(packed(GetParam().format, m_source), m_destination);
        EXPECT_EQ(treeOf(m_destination), treeOf(m_source));
        packToFile(GetParam().format, m_archive, m_source, true, false);
        EXPECT_TRUE(containsEntry(m_archive, "Größe/наме"));
        fs::remove_all(m_destination / "Größe");
    }
}

/// The other formats have their own encoding.
TEST_F(ArchiveTest, KeepsNamesOfATarAsTheBytesThatTheyAre) {
    for (const char* locale : {"C", "C.UTF-8"}) {
        const ScopedCharacterType type(locale);
        for (const char* name : {"\xc3\xa4", "a\xcc\x88", "\xff\xfe"}) {
            writeFile(m_source / name, name);
        }
        for (const auto format : {ArchiveFormat::TarGz, ArchiveFormat::TarBz2}) {
            unpackBytes(packed(format, m_source), m_destination);
            EXPECT_EQ(treeOf(m_destination), treeOf(m_source));
            fs::remove_all(m_destination);
            fs::create_directory(m_destination);
        }
    }
}

TEST_P(Formats, FindsEntriesByTheirExactName) {
    writeFile(m_source / "sub/file", "content");
    writeFile(m_source / "sub/last", "");
    packToFile(GetParam().format, m_archive, m_source, true, false);
    EXPECT_TRUE(containsEntry(m_archive, "sub/file"));
    EXPECT_TRUE(containsEntry(m_archive, "sub/last"));
    EXPECT_TRUE(containsEntry(m_archive, "sub/"));
    for (const auto* name :
         {"sub", "file", "/sub/file", "./sub/file", "sub/file ", "SUB/FILE", "sub/fil", "*", ""}) {
        EXPECT_FALSE(containsEntry(m_archive, name)) << name;
    }
}

TEST_F(ArchiveTest, BufferIsAPlainPair) {
    EXPECT_TRUE((std::is_same_v<Buffer, std::pair<std::uint8_t*, std::size_t>>));
}

TEST_F(ArchiveTest, TakesTheCanonicalPathOfTheFolder) {
    writeFile(m_source / "file", "1");
    fs::create_symlink("source", m_room / "link");
    const auto base = fs::canonical(m_source).string();
    EXPECT_THAT(namesOf(packed(ArchiveFormat::Zip, m_room / "link/../source/.", false)),
                UnorderedElementsAre(base + "/", base + "/file"));
    EXPECT_THAT(namesOf(packed(ArchiveFormat::Zip, m_room / "link", true)), ElementsAre("file"));
}

TEST_F(ArchiveTest, AnEmptyFolderWithWholePathsIsOneEntry) {
    EXPECT_THAT(entriesOf(packed(ArchiveFormat::TarGz, m_source, false)),
                ElementsAre(StoredEntry{fs::canonical(m_source).string() + "/", AE_IFDIR, ""}));
}

TEST_F(ArchiveTest, AFileInPlaceOfTheFolderIsTheRootOfTheWalk) {
    writeFile(m_source / "file", "content");
    EXPECT_THAT(entriesOf(packed(ArchiveFormat::TarGz, m_source / "file")), IsEmpty());
    EXPECT_THAT(
        entriesOf(packed(ArchiveFormat::TarGz, m_source / "file", false)),
        ElementsAre(StoredEntry{fs::canonical(m_source / "file").string(), AE_IFREG, "content"}));
}

TEST_F(ArchiveTest, AnUnknownFormatFailsAtTheFirstEntry) {
    writeFile(m_source / "file", "content");
    const auto* text = "Format must be set before you can write to an archive.";
    EXPECT_THAT(textThrownBy<ArchiveError>([this] { packed(unknownFormat, m_source); }),
                MatchesRegex(archiveError(text)));
    EXPECT_THAT(textThrownBy<ArchiveError>(
                    [this] { packToFile(unknownFormat, m_archive, m_source, true, false); }),
                MatchesRegex(archiveError(text)));
}

TEST_F(ArchiveTest, AnUnknownFormatWithoutEntriesIsNoError) {
    EXPECT_EQ(packed(unknownFormat, m_source), "");
    packToFile(unknownFormat, m_archive, m_source, true, false);
    EXPECT_EQ(readFile(m_archive), "");
}

TEST_F(ArchiveTest, TellsThatThereIsNoSourceFolder) {
    fs::create_symlink("loop", m_room / "loop");
    for (const auto& missing : {m_room / "missing", m_room / "loop", fs::path(),
                                m_room / std::string(300, 'n'), m_room / "dangling"}) {
        EXPECT_THAT(textThrownBy<FileSystemError>([&] { packed(ArchiveFormat::TarGz, missing); }),
                    MatchesRegex(fileSystemError("Error opening path")));
        EXPECT_THAT(textThrownBy<FileSystemError>(
                        [&] { packToFile(ArchiveFormat::TarGz, m_archive, missing, true, false); }),
                    MatchesRegex(fileSystemError("Error opening path")));
        EXPECT_FALSE(fs::exists(m_archive)) << missing;
    }
}

TEST_F(ArchiveTest, TellsThatTheArchiveCannotBeMade) {
    const auto file = m_room / "missing/archive";
    EXPECT_THAT(textThrownBy<FileSystemError>(
                    [&] { packToFile(ArchiveFormat::Zip, file, m_source, true, false); }),
                MatchesRegex(fileSystemError("Error opening archive Failed to open '" +
                                             file.string() + "'")));
    EXPECT_THAT(textThrownBy<FileSystemError>(
                    [&] { packToFile(ArchiveFormat::Zip, m_destination, m_source, true, false); }),
                MatchesRegex(fileSystemError("Error opening archive Failed to open '" +
                                             m_destination.string() + "'")));
}

TEST_F(ArchiveTest, ReplacesAnOlderArchive) {
    writeFile(m_archive, std::string(100000, 'x'));
    writeFile(m_source / "file", "content");
    packToFile(ArchiveFormat::Zip, m_archive, m_source, true, false);
    EXPECT_THAT(namesOf(readFile(m_archive)), ElementsAre("file"));
    EXPECT_LT(fs::file_size(m_archive), 1000U);
}

TEST_F(ArchiveTest, ANullBufferIsFoundBeforeTheFolderIsLookedAt) {
    EXPECT_THAT(textThrownBy<CppUtil::InvalidArgumentError>([this] {
                    unpackBuffer({nullptr, 5}, m_room / "missing");
                }),
                MatchesRegex("Invalid Argument Error: memlocation buffer is a invalid"
                             "\\(.*archive\\.cpp:[0-9]+\\)"));
}

TEST_F(ArchiveTest, TellsThatThereIsNoDestinationForABuffer) {
    EXPECT_THAT(
        textThrownBy<FileSystemError>([this] { unpackBytes("garbage", m_room / "missing"); }),
        MatchesRegex(fileSystemError("Error opening path")));
    EXPECT_FALSE(fs::exists(m_room / "missing"));
}

TEST_F(ArchiveTest, TellsThatThereIsNoArchiveToUnpack) {
    EXPECT_THAT(textThrownBy<FileSystemError>([this] { unpackFile(m_archive, m_destination); }),
                MatchesRegex(fileSystemError("Error opening file: \\(archive\\)")));
}

TEST_F(ArchiveTest, TellsThatTheArchiveToUnpackCannotBeRead) {
    EXPECT_THAT(textThrownBy<ArchiveError>([this] { unpackFile(m_source, m_destination); }),
                MatchesRegex(archiveError("Error reading '" + m_source.string() + "'")));
}

TEST_F(ArchiveTest, TellsThatTheArchiveToSearchCannotBeOpened) {
    EXPECT_THAT(textThrownBy<FileSystemError>([this] { containsEntry(m_archive, "name"); }),
                MatchesRegex(fileSystemError("Error opening file: Failed to open '" +
                                             m_archive.string() + "'")));
    EXPECT_THAT(textThrownBy<FileSystemError>([this] { containsEntry(m_source, "name"); }),
                MatchesRegex(fileSystemError("Error opening file: Error reading '" +
                                             m_source.string() + "'")));
}

TEST_F(ArchiveTest, TellsThatTheArchiveToSearchIsNone) {
    writeFile(m_archive, "this is no archive");
    EXPECT_THAT(textThrownBy<FileSystemError>([this] { containsEntry(m_archive, "name"); }),
                MatchesRegex(fileSystemError("Error opening file: Unrecognized archive format")));
}

TEST_F(ArchiveTest, SearchesToTheEndAlsoBehindAHit) {
    writeFile(m_source / "file", incompressible(200000));
    packToFile(ArchiveFormat::TarGz, m_archive, m_source, true, false);
    EXPECT_TRUE(containsEntry(m_archive, "file"));
    fs::resize_file(m_archive, fs::file_size(m_archive) / 2);
    EXPECT_THAT(textThrownBy<ArchiveError>([this] { containsEntry(m_archive, "file"); }),
                MatchesRegex(archiveError("Truncated input file .*")));
}

TEST_F(ArchiveTest, AHitStaysOneWhenOtherNamesFollow) {
    writeFile(m_archive, foreignArchive(archive_write_set_format_ustar,
                                        {{"first"}, {"second"}, {"first"}, {"third"}}));
    EXPECT_TRUE(containsEntry(m_archive, "first"));
    EXPECT_TRUE(containsEntry(m_archive, "second"));
    EXPECT_TRUE(containsEntry(m_archive, "third"));
    EXPECT_FALSE(containsEntry(m_archive, "fourth"));
}

TEST_F(ArchiveTest, UnpacksWhateverLibarchiveKnows) {
    const std::vector<StoredEntry> entries = {
        {"folder", AE_IFDIR, ""}, {"folder/file", AE_IFREG, "content"}, {"empty"}};
    const Tree tree = {{"folder", "folder"}, {"folder/file", "file content"}, {"empty", "file "}};
    const std::map<std::string, std::function<void(::archive*)>> formats = {
        {"tar", archive_write_set_format_ustar},
        {"gnutar", archive_write_set_format_gnutar},
        {"cpio", archive_write_set_format_cpio},
        {"7zip", archive_write_set_format_7zip},
        {"zip", archive_write_set_format_zip},
        {"iso9660", archive_write_set_format_iso9660},
        {"tar.xz",
         [](::archive* writer) {
             archive_write_add_filter_xz(writer);
             archive_write_set_format_pax(writer);
         }},
        {"tar.bz2", [](::archive* writer) {
             archive_write_add_filter_bzip2(writer);
             archive_write_set_format_gnutar(writer);
         }}};
    for (const auto& [name, setUp] : formats) {
        const auto folder = m_room / name;
        fs::create_directory(folder);
        unpackBytes(foreignArchive(setUp, entries), folder);
        auto unpacked = treeOf(folder);
        unpacked.erase(".");
        EXPECT_EQ(unpacked, tree) << name;
    }
}

TEST_F(ArchiveTest, AnEntryLandsWhereItsNameSays) {
    const auto bytes =
        foreignArchive(archive_write_set_format_ustar,
                       {{"../outside", AE_IFREG, "1"}, {"/absolute", AE_IFREG, "2"}});
    unpackBytes(bytes, m_destination);
    EXPECT_EQ(readFile(m_room / "outside"), "1");
    EXPECT_EQ(readFile(m_destination / "absolute"), "2");
    EXPECT_EQ(treeOf(m_destination).size(), 1U);
}

TEST_F(ArchiveTest, TakesADestinationWithASlashAtItsEnd) {
    writeFile(m_source / "sub/file", "content");
    unpackBytes(packed(ArchiveFormat::TarGz, m_source), m_destination / "");
    EXPECT_EQ(treeOf(m_destination), treeOf(m_source));
}

TEST_F(ArchiveTest, UnpacksOverWhatIsThere) {
    writeFile(m_source / "file", "new");
    writeFile(m_destination / "file", "old and longer");
    writeFile(m_destination / "other", "stays");
    unpackBytes(packed(ArchiveFormat::TarGz, m_source), m_destination);
    EXPECT_EQ(treeOf(m_destination), (Tree{{"file", "file new"}, {"other", "file stays"}}));
}

TEST_F(ArchiveTest, RestoresPermissionsOnlyAsTheUmaskLetsThemBe) {
    writeFile(m_source / "private", "");
    writeFile(m_source / "open", "");
    ::chmod((m_source / "private").c_str(), 0600);
    ::chmod((m_source / "open").c_str(), 04777);
    const timespec longAgo[2] = {{1000, 0}, {1000, 0}};
    ::utimensat(AT_FDCWD, (m_source / "open").c_str(), longAgo, 0);
    const auto former = ::umask(027);
    unpackBytes(packed(ArchiveFormat::TarGz, m_source), m_destination);
    EXPECT_EQ(::umask(former), 027U);
    struct stat status {};
    ASSERT_EQ(::stat((m_destination / "private").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
    ASSERT_EQ(::stat((m_destination / "open").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0750U);
    EXPECT_GT(status.st_mtime, 1000);
}

TEST_F(ArchiveTest, StoresEachOfTwoHardLinksWhole) {
    writeFile(m_source / "first", "content");
    fs::create_hard_link(m_source / "first", m_source / "second");
    EXPECT_THAT(entriesOf(packed(ArchiveFormat::TarGz, m_source)),
                UnorderedElementsAre(StoredEntry{"first", AE_IFREG, "content"},
                                     StoredEntry{"second", AE_IFREG, "content"}));
}

TEST_F(ArchiveTest, StoresAPipeWithoutOpeningIt) {
    ASSERT_EQ(::mkfifo((m_source / "pipe").c_str(), 0600), 0);
    unpackBytes(packed(ArchiveFormat::TarGz, m_source), m_destination);
    EXPECT_EQ(treeOf(m_destination), (Tree{{"pipe", "fifo"}}));
}

}  // namespace
}  // namespace Hox::Archive
