#include "hox/archive/foreign_archive.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <zlib.h>

#include <iomanip>
#include <random>
#include <sstream>

#include "archive_kit.h"
#include "hox/archive/error/archive_error.h"

namespace Hox::Archive {

bool operator==(const ForeignEntry& left, const ForeignEntry& right) {
    return left.name == right.name && left.isFolder == right.isFolder &&
           left.content == right.content;
}

void PrintTo(const ForeignEntry& entry, std::ostream* out) {
    *out << (entry.isFolder ? "folder " : "file ") << entry.name << " \""
         << entry.content.substr(0, 20) << "\" of " << entry.content.size();
}

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr ForeignLimits limits{20, 10000, 5};

ForeignEntry file(const std::string& name, const std::string& content = "") {
    return {name, false, content};
}

ForeignEntry folder(const std::string& name) {
    return {name, true, ""};
}

std::string tar(const std::vector<StoredEntry>& entries) {
    return foreignArchive(archive_write_set_format_ustar, entries);
}

std::string gzip(const std::string& bytes) {
    std::string packed(compressBound(static_cast<uLong>(bytes.size())) + 100, '\0');
    z_stream stream{};
    EXPECT_EQ(deflateInit2(&stream, 9, Z_DEFLATED, 16 + MAX_WBITS, 9, Z_DEFAULT_STRATEGY), Z_OK);
    std::string input = bytes;
    stream.next_in = reinterpret_cast<Bytef*>(input.data());
    stream.avail_in = static_cast<uInt>(input.size());
    stream.next_out = reinterpret_cast<Bytef*>(packed.data());
    stream.avail_out = static_cast<uInt>(packed.size());
    EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
    packed.resize(stream.total_out);
    deflateEnd(&stream);
    return packed;
}

/// Anything that this libarchive can compress with.
std::string filtered(const std::string& bytes, int (*addFilter)(::archive*)) {
    return foreignArchive(
        [addFilter](::archive* writer) {
            addFilter(writer);
            archive_write_set_format_raw(writer);
        },
        {{"all", AE_IFREG, bytes}});
}

std::vector<ForeignEntry> read(const std::string& bytes, const ForeignLimits& most = limits) {
    return readForeignArchive(bytes, most);
}

std::string refusal(const std::string& bytes, const ForeignLimits& most = limits) {
    return textThrownBy<ArchiveError>([&] { read(bytes, most); });
}

TEST(ForeignArchive, IsReadAsItsFilesAndFolders) {
    const auto bytes = tar({{"a", AE_IFDIR, ""},
                            {"a/b", AE_IFREG, "content"},
                            {"./c//d", AE_IFREG, ""},
                            {"./", AE_IFDIR, ""},
                            {"e/", AE_IFDIR, ""}});
    EXPECT_THAT(read(bytes),
                ElementsAre(folder("a"), file("a/b", "content"), file("c/d"), folder("e")));
}

TEST(ForeignArchive, MayBeOfAnyFormatAndCompression) {
    const std::vector<StoredEntry> entries = {{"a/b", AE_IFREG, std::string(2000, 'x')},
                                              {"c", AE_IFREG, incompressible(3000)}};
    const auto expected =
        ElementsAre(file("a/b", entries[0].content), file("c", entries[1].content));
    for (const auto& setFormat :
         {archive_write_set_format_ustar, archive_write_set_format_pax,
          archive_write_set_format_gnutar, archive_write_set_format_zip,
          archive_write_set_format_7zip, archive_write_set_format_cpio_newc}) {
        EXPECT_THAT(read(foreignArchive(setFormat, entries)), expected);
    }
    for (const auto& addFilter : {archive_write_add_filter_gzip, archive_write_add_filter_bzip2,
                                  archive_write_add_filter_xz, archive_write_add_filter_lzma,
                                  archive_write_add_filter_lzip, archive_write_add_filter_compress,
                                  archive_write_add_filter_zstd, archive_write_add_filter_lz4}) {
        const auto compressed = filtered(tar(entries), addFilter);
        EXPECT_THAT(read(compressed), expected);
        EXPECT_THAT(read(gzip(compressed)), expected);
    }
    const auto zip = foreignArchive(archive_write_set_format_zip, entries);
    EXPECT_THAT(read(gzip(zip)), expected);
}

TEST(ForeignArchive, OfNothingIsRefused) {
    EXPECT_THAT(refusal(""), StartsWith("Archiving error: No byte at all("));
    EXPECT_THAT(refusal(gzip("")), StartsWith("Archiving error: "));
    EXPECT_THAT(read(tar({})), IsEmpty());
}

TEST(ForeignArchive, HoldsNothingButFilesAndFolders) {
    for (const mode_t type : {AE_IFLNK, AE_IFIFO, AE_IFCHR, AE_IFBLK}) {
        EXPECT_THAT(refusal(tar({{"good", AE_IFREG, "1"}, {"bad/entry", type, "good"}})),
                    StartsWith("Archiving error: Entry that is neither file nor folder: "
                               "bad/entry("));
    }
}

/// Turns the header of a ustar entry into that of a hard link: kind, target, and the checksum over
/// the header.
std::string asHardLink(std::string bytes, const std::string& target) {
    bytes[156] = '1';
    bytes.replace(157, target.size(), target);
    bytes.replace(148, 8, "        ");
    unsigned sum = 0;
    for (std::size_t place = 0; place < 512; ++place) {
        sum += static_cast<unsigned char>(bytes[place]);
    }
    std::ostringstream digits;
    digits << std::oct << std::setw(6) << std::setfill('0') << sum << '\0';
    return bytes.replace(148, 7, digits.str());
}

TEST(ForeignArchive, HoldsNoHardLinks) {
    EXPECT_THAT(refusal(asHardLink(tar({{"file", AE_IFREG, ""}}), "/etc/passwd")),
                StartsWith("Archiving error: Entry that is neither file nor folder: file("));
}

TEST(ForeignArchive, HoldsNoNameThatLeadsElsewhere) {
    for (const char* name : {"/etc/passwd", "/", "//a"}) {
        EXPECT_THAT(refusal(tar({{name, AE_IFREG, "1"}})),
                    StartsWith("Archiving error: Entry with an absolute name: "))
            << name;
    }
    for (const char* name : {"..", "../a", "a/..", "a/../b", "./../a", "a//../b"}) {
        EXPECT_THAT(refusal(tar({{name, AE_IFREG, "1"}})),
                    StartsWith(std::string("Archiving error: Entry with \"..\" in its name: ") +
                               name + "("))
            << name;
    }
    for (const char* name : {"...", "a..", "..a/b", "a/.../b"}) {
        EXPECT_THAT(read(tar({{name, AE_IFREG, "1"}})), ElementsAre(file(name, "1")));
    }
    EXPECT_THAT(refusal(tar({{".", AE_IFREG, "1"}})), HasSubstr("File without a name"));
}

TEST(ForeignArchive, HoldsNamesInUtf8) {
    for (const std::string& bad :
         {std::string("a\xff"), std::string("\xc3"), std::string("\xc0\xaf"),
          std::string("\xed\xa0\x80"), std::string("\xf4\x90\x80\x80"), std::string("a/\x80/b")}) {
        for (const char* locale : {"C", "C.UTF-8"}) {
            const ScopedCharacterType type(locale);
            EXPECT_THAT(refusal(tar({{bad, AE_IFREG, "1"}})),
                        StartsWith("Archiving error: Entry with a name that is no UTF-8("));
        }
    }
}

/// Composed and decomposed characters are different keys.
TEST(ForeignArchive, HoldsNamesAsTheBytesThatTheyAre) {
    const std::string composed = "\xc3\xa4";
    const std::string decomposed = "a\xcc\x88";
    const auto isBoth = ElementsAre(file(composed, "1"), file(decomposed, "2"));
    const std::vector<StoredEntry> entries = {{composed, AE_IFREG, "1"},
                                              {decomposed, AE_IFREG, "2"}};
    const auto binary = [](::archive* writer) {
        archive_write_set_format_pax_restricted(writer);
        archive_write_set_options(writer, "hdrcharset=BINARY");
    };
    // As other programs write them: with the name in UTF-8 in a separate header.
    std::string utf8 = foreignArchive(binary, entries);
    const std::string mark = "21 hdrcharset=BINARY\n";
    for (auto place = utf8.find(mark); place != std::string::npos; place = utf8.find(mark)) {
        utf8.replace(place, mark.size(), "21 comment=xxxxxxxxx\n");
    }
    for (const char* locale : {"C", "C.UTF-8"}) {
        const ScopedCharacterType type(locale);
        EXPECT_THAT(read(foreignArchive(binary, entries)), isBoth) << locale;
        EXPECT_THAT(read(utf8), isBoth) << locale;
        EXPECT_THAT(read(tar(entries)), isBoth) << locale;
        Testing::TempDir room;
        writeFile(room / composed, "1");
        writeFile(room / decomposed, "2");
        EXPECT_THAT(read(packed(ArchiveFormat::TarGz, room.path())),
                    testing::UnorderedElementsAre(file(composed, "1"), file(decomposed, "2")))
            << locale;
    }
}

TEST(ForeignArchive, HoldsNoNameInAnEncodingOfItsFormat) {
    const ScopedCharacterType utf8("C.UTF-8");
    for (const auto& setFormat : {archive_write_set_format_zip, archive_write_set_format_7zip}) {
        EXPECT_THAT(refusal(foreignArchive(setFormat, {{"a\xcc\x88", AE_IFREG, "1"}})),
                    HasSubstr("Entry without a name that can be read"));
    }
}

TEST(ForeignArchive, HasNamesOfLimitedLengthAndDepth) {
    EXPECT_THAT(read(tar({{"1/2/3/4/5", AE_IFREG, "1"}})), ElementsAre(file("1/2/3/4/5", "1")));
    EXPECT_THAT(read(tar({{"./1//2/./3/4/5/", AE_IFDIR, ""}})), ElementsAre(folder("1/2/3/4/5")));
    for (const mode_t type : {AE_IFREG, AE_IFDIR}) {
        EXPECT_THAT(refusal(tar({{"1/2/3/4/5/6", type, ""}})),
                    StartsWith("Archiving error: Entry with a name of too many components: "
                               "1/2/3/4/5/6"));
    }
    const auto longName = [](std::size_t size) {
        return foreignArchive(archive_write_set_format_pax,
                              {{std::string(size, 'n'), AE_IFREG, "1"}});
    };
    EXPECT_EQ(read(longName(4096)).size(), 1U);
    EXPECT_THAT(refusal(longName(4097)), HasSubstr("Entry with a name that is too long"));
}

TEST(ForeignArchive, IsToldByTheStartOfALongName) {
    std::string umlauts = "/x";
    for (int count = 0; count < 100; ++count) {
        umlauts += "\xc3\xa4";
    }
    EXPECT_THAT(
        refusal(foreignArchive(archive_write_set_format_gnutar, {{umlauts, AE_IFREG, "1"}})),
        HasSubstr("absolute name: " + umlauts.substr(0, 200) + "...("));
    EXPECT_THAT(
        refusal(foreignArchive(archive_write_set_format_gnutar, {{"/" + umlauts, AE_IFREG, "1"}})),
        HasSubstr("absolute name: /" + umlauts.substr(0, 198) + "...("));
}

TEST(ForeignArchive, HasALimitedNumberOfEntries) {
    const std::vector<StoredEntry> entries(limits.entries, {"a", AE_IFREG, "1"});
    EXPECT_EQ(read(tar(entries)).size(), limits.entries);
    for (const char* name : {"b", "."}) {
        auto more = entries;
        more.push_back({name, AE_IFDIR, ""});
        EXPECT_THAT(refusal(tar(more)),
                    StartsWith("Archiving error: More entries than an archive may have("));
    }
}

TEST(ForeignArchive, HasALimitedNumberOfBytesInAll) {
    const std::string half(limits.bytes / 2, 'x');
    const std::vector<StoredEntry> most = {{"a", AE_IFREG, half}, {"b", AE_IFREG, half}};
    const std::vector<StoredEntry> more = {
        {"a", AE_IFREG, half}, {"b", AE_IFREG, half}, {"c/d", AE_IFREG, "1"}};
    for (const auto& setFormat : {archive_write_set_format_ustar, archive_write_set_format_zip,
                                  archive_write_set_format_7zip}) {
        EXPECT_EQ(read(foreignArchive(setFormat, most)).size(), 2U);
        EXPECT_THAT(refusal(foreignArchive(setFormat, more)),
                    StartsWith("Archiving error: More bytes than an archive may have, at: c/d("));
    }
}

/// A zip stores the size of a file that was written as a stream only after the file.
TEST(ForeignArchive, CountsBytesThatAreNotDeclared) {
    std::string memory(1U << 20U, '\0');
    std::size_t used = 0;
    {
        const auto writer = newWriter();
        archive_write_set_format_zip(writer.get());
        ASSERT_EQ(archive_write_open_memory(writer.get(), memory.data(), memory.size(), &used),
                  ARCHIVE_OK);
        const auto entry = newEntry();
        archive_entry_set_pathname(entry.get(), "bomb");
        archive_entry_set_filetype(entry.get(), AE_IFREG);
        ASSERT_EQ(archive_write_header(writer.get(), entry.get()), ARCHIVE_OK);
        const std::string zeros(limits.bytes + 1, '\0');
        archive_write_data(writer.get(), zeros.data(), zeros.size());
    }
    memory.resize(used);
    // Inside a compression it is read as a stream.
    for (const auto& bytes : {memory, gzip(memory)}) {
        EXPECT_THAT(refusal(bytes), HasSubstr("More bytes than an archive may have"));
    }
}

std::string sparse(std::int64_t size, std::int64_t dataAt) {
    std::string memory(1U << 20U, '\0');
    std::size_t used = 0;
    {
        const auto writer = newWriter();
        archive_write_set_format_pax(writer.get());
        EXPECT_EQ(archive_write_open_memory(writer.get(), memory.data(), memory.size(), &used),
                  ARCHIVE_OK);
        const auto entry = newEntry();
        archive_entry_set_pathname(entry.get(), "holes");
        archive_entry_set_filetype(entry.get(), AE_IFREG);
        archive_entry_set_size(entry.get(), size);
        archive_entry_sparse_add_entry(entry.get(), dataAt, 1);
        EXPECT_EQ(archive_write_header(writer.get(), entry.get()), ARCHIVE_OK);
        const std::string hole(static_cast<std::size_t>(std::min<std::int64_t>(dataAt, 100000)),
                               '\0');
        for (std::int64_t written = 0; written < dataAt;
             written += static_cast<std::int64_t>(hole.size())) {
            archive_write_data(writer.get(), hole.data(), hole.size());
        }
        archive_write_data(writer.get(), "x", 1);
    }
    memory.resize(used);
    return memory;
}

TEST(ForeignArchive, CountsHolesAsBytes) {
    EXPECT_THAT(refusal(gzip(sparse(std::int64_t{1} << 31U, 4096))),
                StartsWith("Archiving error: More bytes than an archive may have, at: holes("));
    std::string expected(8000, '\0');
    expected[4096] = 'x';
    EXPECT_THAT(read(sparse(8000, 4096)), ElementsAre(file("holes", expected)));
}

TEST(ForeignArchive, IsNotDecompressedBeyondItsLimit) {
    const std::string zeros(limits.bytes + limits.entries * 3072 + 1, '\0');
    const auto small = tar({{"a", AE_IFREG, "1"}});
    // The data is after the end of one archive, and skipped between the entries of another.
    const auto cpio = foreignArchive(archive_write_set_format_cpio_newc, {{"a", AE_IFREG, "1"}});
    for (const auto& bytes : {small + zeros, cpio.substr(0, 116) + zeros}) {
        EXPECT_THAT(refusal(gzip(bytes)), HasSubstr("gzip: more than the archive may hold"));
        for (const auto& addFilter : {archive_write_add_filter_bzip2, archive_write_add_filter_xz,
                                      archive_write_add_filter_zstd}) {
            EXPECT_THAT(refusal(filtered(bytes, addFilter)),
                        HasSubstr("More bytes than an archive may have"));
        }
    }
}

TEST(ForeignArchive, IsCompressedWithRightChecksums) {
    const auto good = gzip(tar({{"a", AE_IFREG, "1"}}));
    EXPECT_EQ(read(good).size(), 1U);
    EXPECT_EQ(read(good + std::string(1000, '\0')).size(), 1U) << "filled up to a block";
    for (const std::size_t place : {good.size() - 8, good.size() - 5}) {
        std::string bad = good;
        bad[place] = static_cast<char>(bad[place] ^ 1);
        EXPECT_THAT(refusal(bad), StartsWith("Archiving error: gzip: incorrect data check("));
    }
    std::string bad = good;
    bad[good.size() - 4] = static_cast<char>(bad[good.size() - 4] ^ 1);
    EXPECT_THAT(refusal(bad), StartsWith("Archiving error: gzip: incorrect length check("));
    for (std::size_t length = 2; length < good.size(); ++length) {
        EXPECT_THAT(refusal(good.substr(0, length)), StartsWith("Archiving error: "));
    }
    EXPECT_THAT(refusal(good + "more"), HasSubstr("gzip: something else after the end"));
    const auto bytes = tar({{"a", AE_IFREG, "1"}});
    EXPECT_EQ(read(gzip(bytes.substr(0, 700)) + gzip(bytes.substr(700))).size(), 1U);
    std::string second = gzip(bytes.substr(700));
    second[0] = 'x';
    EXPECT_THAT(refusal(gzip(bytes.substr(0, 700)) + second), HasSubstr("after the end"));
}

/// The checks of the other compressions also cover the data after the end of the archive.
TEST(ForeignArchive, IsReadToTheEndOfItsCompression) {
    for (const auto& addFilter : {archive_write_add_filter_bzip2, archive_write_add_filter_xz}) {
        const auto good = filtered(tar({{"a", AE_IFREG, "1"}}), addFilter);
        EXPECT_EQ(read(good).size(), 1U);
        EXPECT_THAT(refusal(good.substr(0, good.size() - 4)), StartsWith("Archiving error: "));
    }
}

/// Each flipped bit is detected or has no effect.
TEST(ForeignArchive, IsNeverReadAsAnother) {
    const auto good = gzip(tar({{"a", AE_IFREG, "content"}, {"b", AE_IFREG, incompressible(99)}}));
    const auto expected = read(good);
    std::size_t refused = 0;
    for (std::size_t bit = 0; bit < good.size() * 8; ++bit) {
        std::string bad = good;
        bad[bit / 8] = static_cast<char>(bad[bit / 8] ^ (1 << (bit % 8)));
        try {
            EXPECT_EQ(read(bad), expected) << bit;
        } catch (const ArchiveError&) {
            ++refused;
        }
    }
    EXPECT_GT(refused, good.size() * 8 * 9 / 10) << "all but times and fillings";
}

TEST(ForeignArchive, OfRandomBytesIsRefused) {
    std::mt19937 random(44);
    for (unsigned round = 0; round < 300; ++round) {
        const auto bytes = incompressible(random() % 3000 + 1, round);
        try {
            EXPECT_THAT(read(bytes), IsEmpty());
        } catch (const ArchiveError&) {
            continue;
        }
    }
}

/// Such a list names local files, which libarchive would open.
TEST(ForeignArchive, IsNoListOfFiles) {
    EXPECT_THAT(refusal("#mtree\n./a type=file contents=/etc/passwd\n"),
                StartsWith("Archiving error: Unrecognized archive format("));
}

TEST(ForeignArchive, StartsNoProgram) {
    const auto encoded = filtered(tar({{"a", AE_IFREG, "1"}}), archive_write_add_filter_uuencode);
    EXPECT_THAT(refusal(encoded), StartsWith("Archiving error: Unrecognized archive format("));
    const std::string lrzip("LRZI\0\6", 6);
    EXPECT_THAT(refusal(lrzip + std::string(100, '\0')), StartsWith("Archiving error: "));
}

TEST(ForeignArchive, IsReadRawWhateverItsNamesAndKinds) {
    const auto entries = readRawEntries(gzip(tar({{"/absolute", AE_IFREG, "1"},
                                                  {"a/../\xff", AE_IFREG, "2"},
                                                  {"b", AE_IFLNK, "x"},
                                                  {"c/", AE_IFDIR, ""},
                                                  {std::string(90, '\xbf'), AE_IFREG, ""}})),
                                        limits);
    ASSERT_EQ(entries.size(), 5U);
    EXPECT_EQ(entries[0].name + entries[0].content, "/absolute1");
    EXPECT_EQ(entries[1].name + entries[1].content,
              "a/../\xff"
              "2");
    EXPECT_EQ(entries[2].kind, RawEntry::Kind::Other);
    EXPECT_EQ(entries[3].kind, RawEntry::Kind::Folder);
    const auto tooLarge = tar({{std::string(90, '\xbf'), AE_IFREG, std::string(2000, 'x')}});
    EXPECT_THROW(readRawEntries(tooLarge, {10, 1999, 1}), ArchiveError);
    EXPECT_THROW(readRawEntries("", limits), ArchiveError);
    EXPECT_THROW(readRawEntries("#mtree\n./a type=file contents=/etc/passwd\n", limits),
                 ArchiveError);
}

TEST(ForeignArchive, OfTheMostThatAPackageMayHoldIsRead) {
    constexpr ForeignLimits large{40000, 8U << 20U, 128};
    std::string bytes;
    const auto one = tar({{"sys/conf/mb/0/tuner/key/data", AE_IFREG, "1"}}).substr(0, 1024);
    for (std::size_t entry = 0; entry < large.entries; ++entry) {
        bytes += one;
    }
    EXPECT_EQ(read(gzip(bytes + std::string(1024, '\0')), large).size(), large.entries);
    EXPECT_THAT(refusal(gzip(bytes + one + std::string(1024, '\0')), large),
                HasSubstr("More entries than an archive may have"));
}

}  // namespace
}  // namespace Hox::Archive
