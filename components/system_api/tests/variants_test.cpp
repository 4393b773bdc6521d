#include "hox/system_api/variants.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <streambuf>
#include <string>
#include <vector>

#include "hox/cpputil/error/file_system_error.h"
#include "hox/testing/log_capture.h"
#include "hox/testing/temp_dir.h"

namespace Hox::SystemAPI {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;

constexpr auto QAM = HeadendSWVariant::QAM;          // NOLINT(readability-identifier-naming)
constexpr auto COFDM = HeadendSWVariant::COFDM;      // NOLINT(readability-identifier-naming)
constexpr auto UNKNOWN = HeadendSWVariant::UNKNOWN;  // NOLINT(readability-identifier-naming)

std::string contentOf(const fs::path& file) {
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), {}};
}

void write(const fs::path& file, const std::string& content) {
    std::ofstream(file) << content;
}

std::string serializeError(HeadendSWVariant variant, const fs::path& file) {
    try {
        serialize(variant, file);
    } catch (const CppUtil::FileSystemError& error) {
        return error.what();
    }
    return "no error";
}

/// Delivers its bytes and then fails like a broken disk.
class BreakingSource : public std::streambuf {
public:
    explicit BreakingSource(std::string bytes) : m_bytes(std::move(bytes)) {
        setg(m_bytes.data(), m_bytes.data(), m_bytes.data() + m_bytes.size());
    }

protected:
    int_type underflow() override { throw std::runtime_error("broken"); }

private:
    std::string m_bytes;
};

TEST(Variants, HaveNames) {
    EXPECT_EQ(std::string(nameOf(QAM)) + nameOf(COFDM) + nameOf(UNKNOWN), "QAMCOFDMUNKNOWN");
}

TEST(Variants, HaveTheirNumbers) {
    EXPECT_EQ(static_cast<int>(QAM), 0);
    EXPECT_EQ(static_cast<int>(COFDM), 1);
    EXPECT_EQ(static_cast<int>(UNKNOWN), 2);
    EXPECT_EQ(HeadendSWVariant(), QAM);
}

TEST(Variants, AreReadFromTextAndFile) {
    struct Case {
        std::string text;
        HeadendSWVariant expected;
    };
    const std::vector<Case> cases = {
        {"", QAM},
        {"\n", QAM},
        {"foo", QAM},
        {"foo\n", QAM},
        {":", QAM},
        {"output:QAM\n", QAM},
        {"output:COFDM\n", COFDM},
        {"output:COFDM", COFDM},
        {"output:UNKNOWN\n", UNKNOWN},
        {"output:XYZ", UNKNOWN},
        {"output:XYZ\n", UNKNOWN},
        {"output:cofdm\n", UNKNOWN},
        {"output: COFDM\n", UNKNOWN},
        {"output:COFDM \n", UNKNOWN},
        {"output:COFDM\r\n", UNKNOWN},
        {"output:\n", UNKNOWN},
        {"output:", UNKNOWN},
        {"output", UNKNOWN},
        {"output\n", QAM},
        {"Output:COFDM\n", QAM},
        {"output :COFDM\n", QAM},
        {"\noutput:COFDM\n", QAM},
        {":output:COFDM\n", COFDM},
        {"foo:output:COFDM\n", COFDM},
        {"foo:bar\noutput:COFDM\n", QAM},
        {"output:COFDM\nfoo:bar\n", COFDM},
        {"output:QAM\noutput:COFDM\n", COFDM},
        {"output:COFDM\noutput:QAM\n", QAM},
        {"output:COFDM\noutput:XYZ\n", UNKNOWN},
        {"output:XYZ\noutput:COFDM\n", COFDM},
        {"output:COFDM\noutput:", UNKNOWN},
        {"output:output:COFDM\n", UNKNOWN},
    };
    const Testing::TempDir room;
    Testing::LogCapture log;
    for (const auto& [text, expected] : cases) {
        std::istringstream stream(text);
        EXPECT_EQ(deSerialize(stream), expected) << text;
        write(room / "variant", text);
        EXPECT_EQ(deSerialize(room / "variant"), expected) << text;
    }
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST(Variants, AMissingFileIsTheDefault) {
    const Testing::TempDir room;
    Testing::LogCapture log;
    write(room / "file", "output:COFDM\n");
    fs::create_symlink("nowhere", room / "dangling");
    EXPECT_EQ(deSerialize(room / "missing"), QAM);
    EXPECT_EQ(deSerialize(room / "file" / "below"), QAM);
    EXPECT_EQ(deSerialize(room / "dangling"), QAM);
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST(Variants, AFileThatCannotBeReadIsUnknownAndLogged) {
    const Testing::TempDir room;
    fs::create_directory(room / "folder");
    fs::create_symlink("loop", room / "loop");
    for (const auto& file : {room / "folder", room / "loop", room / std::string(300, 'n')}) {
        Testing::LogCapture log;
        EXPECT_EQ(deSerialize(file), UNKNOWN) << file;
        ASSERT_THAT(log.texts(), ElementsAre("Failed deserializing stream")) << file;
        EXPECT_EQ(log.records()[0].level, spdlog::level::err);
        EXPECT_THAT(log.records()[0].logger,
                    HasSubstr("variants.cpp::Hox::SystemAPI::deSerialize"));
    }
}

TEST(Variants, AStreamThatBreaksIsUnknownAndLogged) {
    for (const auto* text : {"", "output:COFDM\n", "output:COF", "outp"}) {
        Testing::LogCapture log;
        BreakingSource source(text);
        std::istream stream(&source);
        EXPECT_EQ(deSerialize(stream), UNKNOWN) << text;
        EXPECT_THAT(log.textsAt(spdlog::level::err), ElementsAre("Failed deserializing stream"));
    }
}

TEST(Variants, AStreamThatHasFailedBeforeIsUnknownAndLogged) {
    Testing::LogCapture log;
    std::istringstream stream("output:COFDM\n");
    stream.setstate(std::ios::failbit);
    EXPECT_EQ(deSerialize(stream), UNKNOWN);
    EXPECT_THAT(log.texts(), ElementsAre("Failed deserializing stream"));
}

TEST(Variants, AreWrittenAsOneLine) {
    const Testing::TempDir room;
    serialize(QAM, room / "variant");
    EXPECT_EQ(contentOf(room / "variant"), "output:QAM\n");
    serialize(COFDM, room / "variant");
    EXPECT_EQ(contentOf(room / "variant"), "output:COFDM\n");
    EXPECT_EQ(deSerialize(room / "variant"), COFDM);
    EXPECT_FALSE(fs::exists(room / "variant.new"));
}

TEST(Variants, WithoutANameAreWrittenAsNothing) {
    const Testing::TempDir room;
    for (const auto variant : {UNKNOWN, static_cast<HeadendSWVariant>(3)}) {
        write(room / "variant", "output:COFDM\n");
        serialize(variant, room / "variant");
        EXPECT_TRUE(fs::exists(room / "variant"));
        EXPECT_EQ(contentOf(room / "variant"), "");
    }
}

TEST(Variants, AStaleTemporaryFileIsOverwritten) {
    const Testing::TempDir room;
    write(room / "variant.new", "something longer than what is written\n");
    serialize(QAM, room / "variant");
    EXPECT_EQ(contentOf(room / "variant"), "output:QAM\n");
}

TEST(Variants, TheOldFileStaysIfTheNewOneCannotBeMade) {
    const Testing::TempDir room;
    write(room / "variant", "output:COFDM\n");
    fs::create_directory(room / "variant.new");
    EXPECT_THAT(
        serializeError(QAM, room / "variant"),
        MatchesRegex("IOErrorr: Generic filesystem Error: Failed storing into \"" +
                     (room / "variant.new").string() + " \" file \\(.*variants\\.cpp:[0-9]+\\)"));
    EXPECT_EQ(contentOf(room / "variant"), "output:COFDM\n");
}

TEST(Variants, TheOldFileStaysIfTheDiskIsFull) {
    const Testing::TempDir room;
    write(room / "variant", "output:COFDM\n");
    fs::create_symlink("/dev/full", room / "variant.new");
    EXPECT_THAT(serializeError(QAM, room / "variant"), HasSubstr("Failed storing into \""));
    EXPECT_EQ(contentOf(room / "variant"), "output:COFDM\n");
}

TEST(Variants, TellsThatTheFolderIsMissing) {
    EXPECT_THAT(serializeError(UNKNOWN, "/nonexistent/variant"),
                HasSubstr("Failed storing into \"/nonexistent/variant.new \" file ("));
}

TEST(Variants, TellsWhyTheRenamingFailed) {
    const Testing::TempDir room;
    fs::create_directories(room / "variant/below");
    EXPECT_THAT(serializeError(QAM, room / "variant"),
                MatchesRegex("IOErrorr: Generic filesystem Error: Failed renaming temp file errno "
                             "21\\(.*variants\\.cpp:[0-9]+\\)"));
    EXPECT_TRUE(fs::is_directory(room / "variant/below"));
}

}  // namespace
}  // namespace Hox::SystemAPI
