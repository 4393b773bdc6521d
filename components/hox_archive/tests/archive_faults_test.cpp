#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <random>
#include <thread>

#include "archive_kit.h"
#include "hox/archive/archive.h"
#include "hox/archive/error/archive_error.h"
#include "hox/cpputil/error/file_system_error.h"
#include "hox/testing/file_calls.h"
#include "hox/testing/private_mounts.h"
#include "hox/testing/skip_outside_ci.h"

namespace Hox::Archive {
namespace {

namespace fs = std::filesystem;
using testing::IsEmpty;
using testing::MatchesRegex;

const char* const noText = "Archiving error: \\(.*archive\\.cpp:[0-9]+\\)";

std::string archiveError(const std::string& message) {
    return "Archiving error: " + message + "\\(.*archive\\.cpp:[0-9]+\\)";
}

class ArchiveFaults : public ArchiveTest {
protected:
    std::string packText(ArchiveFormat format = ArchiveFormat::TarGz) const {
        return textThrownBy<ArchiveError>([&] { packed(format, m_source); });
    }

    std::string unpackText(const std::string& bytes) const {
        return textThrownBy<ArchiveError>([&] { unpackBytes(bytes, m_destination); });
    }

    /// Whether the bytes can be unpacked into a new folder; catches ArchiveError only.
    bool unpacks(const std::string& bytes) const {
        fs::remove_all(m_destination);
        fs::create_directory(m_destination);
        try {
            unpackBytes(bytes, m_destination);
        } catch (const ArchiveError&) {
            return false;
        }
        return true;
    }
};

TEST_F(ArchiveFaults, GarbageIsAnError) {
    const auto text = archiveError("Unrecognized archive format");
    EXPECT_THAT(unpackText("this is no archive"), MatchesRegex(text));
    writeFile(m_archive, incompressible(5000));
    EXPECT_THAT(textThrownBy<ArchiveError>([this] { unpackFile(m_archive, m_destination); }),
                MatchesRegex(text));
    EXPECT_THAT(treeOf(m_destination), IsEmpty());
}

TEST_F(ArchiveFaults, NoBytesAreAnArchiveWithoutEntries) {
    unpackBytes("", m_destination);
    EXPECT_THAT(treeOf(m_destination), IsEmpty());
}

/// A handful of bytes may by chance look like one of libarchive's text formats, without entries.
TEST_F(ArchiveFaults, ATruncatedCompressedArchiveIsNeverTakenForAWholeOne) {
    constexpr std::size_t shortest = 32;
    writeFile(m_source / "first", "content");
    writeFile(m_source / "sub/second", incompressible(300));
    const auto whole = treeOf(m_source);
    for (const auto format : {ArchiveFormat::TarGz, ArchiveFormat::TarBz2}) {
        const auto bytes = packed(format, m_source);
        std::size_t refused = 0;
        for (std::size_t length = 1; length < bytes.size(); ++length) {
            if (!unpacks(bytes.substr(0, length))) {
                ++refused;
            } else {
                ASSERT_EQ(treeOf(m_destination), length < shortest ? Tree() : whole)
                    << length << " of " << bytes.size();
            }
        }
        EXPECT_GT(refused, bytes.size() * 3 / 4);
    }
}

TEST_F(ArchiveFaults, ATruncatedArchiveOfOtherFormatsIsReadOrRefused) {
    writeFile(m_source / "first", "content");
    writeFile(m_source / "sub/second", incompressible(300));
    const auto zip = packed(ArchiveFormat::Zip, m_source);
    const auto tar = foreignArchive(archive_write_set_format_ustar,
                                    {{"first", AE_IFREG, "content"}, {"second", AE_IFREG, "2"}});
    int refused = 0;
    for (const auto& bytes : {zip, tar.substr(0, 1100)}) {
        for (std::size_t length = 0; length < bytes.size(); ++length) {
            refused += unpacks(bytes.substr(0, length)) ? 0 : 1;
        }
    }
    EXPECT_GT(refused, 1000 + static_cast<int>(zip.size()) / 2);
}

TEST_F(ArchiveFaults, RandomBytesAreReadOrRefused) {
    std::mt19937 random(42);
    int refused = 0;
    for (unsigned round = 0; round < 300; ++round) {
        refused += unpacks(incompressible(random() % 3000, round)) ? 0 : 1;
    }
    EXPECT_GT(refused, 250);
}

TEST_F(ArchiveFaults, ArchivesWithBrokenBytesAreReadOrRefused) {
    writeFile(m_source / "first", "content");
    writeFile(m_source / "sub/second", std::string(600, 'x'));
    std::mt19937 random(43);
    int refused = 0;
    const auto tar = foreignArchive(archive_write_set_format_ustar,
                                    {{"first", AE_IFREG, "content"}, {"second", AE_IFREG, "2"}});
    for (const auto& bytes :
         {packed(ArchiveFormat::TarGz, m_source), packed(ArchiveFormat::TarBz2, m_source),
          packed(ArchiveFormat::Zip, m_source), tar.substr(0, 3 * 1024)}) {
        for (int round = 0; round < 150; ++round) {
            auto broken = bytes;
            for (auto flips = random() % 4 + 1; flips > 0; --flips) {
                broken[random() % broken.size()] = static_cast<char>(random() & 0xffU);
            }
            refused += unpacks(broken) ? 0 : 1;
        }
    }
    EXPECT_GT(refused, 150);
}

TEST_F(ArchiveFaults, WhatAFormatCannotHoldStopsTheWalk) {
    ASSERT_EQ(::mkfifo((m_source / "entry").c_str(), 0600), 0);
    EXPECT_THAT(packText(ArchiveFormat::Zip),
                MatchesRegex(archiveError("entry: zip format cannot archive named pipes")));
    fs::remove(m_source / "entry");

    const int server = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, (m_source / "entry").c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(server, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ::close(server);
    EXPECT_THAT(packText(), MatchesRegex(archiveError("entry: pax format cannot archive sockets")));
}

TEST_F(ArchiveFaults, AnArchiveIsNotPackedIntoItself) {
    writeFile(m_source / "file", "content");
    EXPECT_THAT(textThrownBy<ArchiveError>([this] {
                    packToFile(ArchiveFormat::TarGz, m_source / "archive", m_source, true, false);
                }),
                MatchesRegex(archiveError("Can't add archive to itself")));
}

TEST_F(ArchiveFaults, AFullDiskIsFoundAtTheLatestWhenTheArchiveIsClosed) {
    writeFile(m_source / "file", "content");
    for (const auto format : {ArchiveFormat::TarGz, ArchiveFormat::TarBz2, ArchiveFormat::Zip}) {
        EXPECT_THAT(textThrownBy<ArchiveError>(
                        [&] { packToFile(format, "/dev/full", m_source, true, false); }),
                    MatchesRegex(archiveError("Write error")));
    }
}

TEST_F(ArchiveFaults, AFileThatCannotBeReadStopsTheWalk) {
    writeFile(m_source / "a/file", "content");
    const auto pack = [this] {
        try {
            packed(ArchiveFormat::TarGz, m_source);
        } catch (const fs::filesystem_error& error) {
            return std::string(error.what());
        }
        return std::string("no error");
    };
    const auto calls = Testing::runWatched(pack, Testing::FileCalls::All).calls;
    std::size_t reads = 0;
    for (std::size_t number = 0; number < calls.size(); ++number) {
        if (calls[number].name == "read" && calls[number].path == m_source / "a/file") {
            ++reads;
            EXPECT_EQ(
                Testing::runWatched(pack, Testing::FileCalls::All, Testing::Fault{number, EIO})
                    .answer,
                "filesystem error: cannot read: Input/output error [" +
                    (m_source / "a/file").string() + "]");
        }
    }
    EXPECT_EQ(reads, 2U) << "the content and its end";
}

/// The walk uses short relative names; a file is opened by its whole path.
TEST_F(ArchiveFaults, AFileWhosePathIsTooLongStopsTheWalk) {
    const std::string component(250, 'n');
    const int start = ::open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(::chdir(m_source.c_str()), 0);
    for (int depth = 0; depth < 17; ++depth) {
        ASSERT_EQ(::mkdir(component.c_str(), 0700), 0);
        ASSERT_EQ(::chdir(component.c_str()), 0);
    }
    ::close(::open("file", O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    ASSERT_EQ(::fchdir(start), 0);
    ::close(start);
    EXPECT_THAT(
        textThrownBy<CppUtil::FileSystemError>([&] { packed(ArchiveFormat::TarGz, m_source); }),
        MatchesRegex("IOErrorr: Generic filesystem Error: Could not open file: "
                     "\"" +
                     fs::canonical(m_source).string() +
                     "/.*/file\" with flags: 0\\(.*raii_filedescriptors\\.cpp:[0-9]+\\)"));
}

/// Raises the descriptor limit step by step: every attempt before success fails with an error of
/// this component and leaves no descriptor open.
TEST_F(ArchiveFaults, AWalkWithoutDescriptorsEndsInAnError) {
    writeFile(m_source / "sub/file", "");
    rlimit former{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &former), 0);
    const auto descriptors = openDescriptors();
    int walkFailures = 0;
    int openFailures = 0;
    bool packedAll = false;
    for (rlim_t limit = 3; limit < 100 && !packedAll; ++limit) {
        const rlimit few{limit, former.rlim_max};
        std::string text;
        ::setrlimit(RLIMIT_NOFILE, &few);
        try {
            packedAll = namesOf(packed(ArchiveFormat::TarGz, m_source)).size() == 2;
        } catch (const ArchiveError& error) {
            ++walkFailures;
            text = error.what();
        } catch (const CppUtil::FileSystemError& error) {
            ++openFailures;
            text = error.what();
        }
        ::setrlimit(RLIMIT_NOFILE, &former);
        EXPECT_EQ(openDescriptors(), descriptors) << limit;
        EXPECT_TRUE(packedAll || text.size() > 60) << limit << ": " << text;
    }
    EXPECT_TRUE(packedAll);
    EXPECT_GT(walkFailures, 0);
    EXPECT_GT(openFailures, 0);
}

TEST_F(ArchiveFaults, AnEntryThatCannotBeMadeEndsTheUnpackingAndLeavesTheRest) {
    writeFile(m_destination / "in the way/file", "stays");
    const auto bytes = foreignArchive(archive_write_set_format_ustar,
                                      {{"first", AE_IFREG, "1"}, {"in the way"}, {"third"}});
    EXPECT_THAT(
        unpackText(bytes),
        MatchesRegex(archiveError("Can't replace existing directory with non-directory.*")));
    EXPECT_EQ(
        treeOf(m_destination),
        (Tree{{"first", "file 1"}, {"in the way", "folder"}, {"in the way/file", "file stays"}}));
}

TEST_F(ArchiveFaults, AFileInPlaceOfTheDestinationGivesWayToAFolder) {
    writeFile(m_room / "file", "goes");
    const auto bytes = foreignArchive(archive_write_set_format_ustar, {{"entry", AE_IFREG, "1"}});
    unpackBytes(bytes, m_room / "file");
    EXPECT_EQ(treeOf(m_room / "file"), (Tree{{"entry", "file 1"}}));
}

TEST_F(ArchiveFaults, DataThatCannotBeReadEndsTheUnpacking) {
    const auto bytes = foreignArchive(
        [](::archive* writer) {
            archive_write_set_format_zip(writer);
            archive_write_set_options(writer, "zip:encryption=traditional");
            archive_write_set_passphrase(writer, "secret");
        },
        {{"first", AE_IFREG, "1"}, {"second", AE_IFREG, "2"}});
    EXPECT_THAT(unpackText(bytes), MatchesRegex(noText));
    EXPECT_EQ(treeOf(m_destination).count("second"), 0U);
}

/// The sizes of the files are set anyway, so a full disk shows in their content only.
TEST_F(ArchiveFaults, DataThatCannotBeWrittenIsPassedOver) {
    const auto bytes =
        foreignArchive(archive_write_set_format_ustar,
                       {{"large", AE_IFREG, incompressible(200000)}, {"folder", AE_IFDIR, ""}});
    bool mounted = false;
    Tree tree;
    // A separate thread, because only this thread sees the small file system.
    std::thread([&] {
        mounted = Testing::mountPrivateFolders({m_destination}) &&
                  ::mount(nullptr, m_destination.c_str(), nullptr, MS_REMOUNT, "size=64k") == 0;
        if (mounted) {
            EXPECT_NO_THROW(unpackBytes(bytes, m_destination));
            tree = treeOf(m_destination);
        }
    }).join();
    if (!mounted) {
        Testing::skipOutsideCi("this machine allows no private mounts");
        return;
    }
    EXPECT_EQ(tree["folder"], "folder");
    EXPECT_EQ(tree["large"].size(), 200000U + 5U);
    EXPECT_FALSE(tree["large"] == "file " + incompressible(200000));
}

/// Only closing completes the last file.
TEST_F(ArchiveFaults, AFileThatCannotBeCompletedIsAnErrorAlsoAsTheLastOne) {
    const auto bytes = foreignArchive(archive_write_set_format_ustar,
                                      {{"large", AE_IFREG, incompressible(200000)}});
    rlimit former{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &former), 0);
    const auto handler = ::signal(SIGXFSZ, SIG_IGN);
    const rlimit small{100000, former.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    const auto text = unpackText(bytes);
    ::setrlimit(RLIMIT_FSIZE, &former);
    ::signal(SIGXFSZ, handler);
    EXPECT_THAT(text, MatchesRegex(archiveError(".+")));
    m_descriptors += 1;  // libarchive never closes a file that it could not complete
}

}  // namespace
}  // namespace Hox::Archive
