#include "hox/system_api/serial_records.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "hox/system_api/error/serial_number_error.h"
#include "hox/testing/temp_dir.h"

namespace Hox::SystemAPI {
namespace {

using testing::MatchesRegex;

class SerialRecords : public testing::Test {
protected:
    std::vector<SerialRecord> read(const std::string& content) const {
        std::ofstream(m_file, std::ios::binary) << content;
        return readSerialRecords(m_file);
    }

    std::string errorOf(const std::string& content) const {
        try {
            read(content);
        } catch (const SerialNumberError& error) {
            return error.what();
        }
        return "no error";
    }

    Testing::TempDir m_room;
    std::filesystem::path m_file = m_room / "serial";
    const std::string m_error =
        "Failed to read the required properties of the serial file"
        "\\(.*serial_records\\.cpp:[0-9]+\\)";
};

using SerialRecordsDeathTest = SerialRecords;

std::string recordWith(const std::string& type, const std::string& partNumber,
                       const std::string& revision) {
    return R"([{"type":)" + type + R"(,"serial":"S-1","partnumber":)" + partNumber +
           R"(,"revision":)" + revision + "}]";
}

TEST_F(SerialRecords, AreReadInTheirOrder) {
    const auto records = read(R"([
        {"type": "7", "serial": "A 1", "partnumber": "100001", "revision": "2"},
        {"revision": "003", "more": [1, {}], "partnumber": "2147483647", "serial": "", "type": "00"}
    ])");
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0].type, 7);
    EXPECT_EQ(records[0].serial, "A 1");
    EXPECT_EQ(records[0].partNumber, 100001);
    EXPECT_EQ(records[0].revision, 2);
    EXPECT_EQ(records[1].type, 0);
    EXPECT_EQ(records[1].serial, "");
    EXPECT_EQ(records[1].partNumber, 2147483647);
    EXPECT_EQ(records[1].revision, 3);
}

TEST_F(SerialRecords, MayBeNone) {
    EXPECT_TRUE(read("[]").empty());
}

TEST_F(SerialRecords, KeepASerialOfAnyCharacters) {
    const auto records =
        read(R"([{"type":"0","serial":"a\u0000b\u00e9","partnumber":"1","revision":"1"}])");
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].serial, std::string("a\0b\xc3\xa9", 5));
}

TEST_F(SerialRecords, AreRefusedInAFileOfAnotherShape) {
    const std::vector<std::string> contents = {
        "",
        " ",
        "garbage",
        "[",
        "]",
        "[{]",
        "{}",
        "null",
        "0",
        R"("text")",
        "[1]",
        "[null]",
        "[[]]",
        R"(["text"])",
        "[{}]",
        "[] []",
        "[],",
        R"({"type":"0"})",
        R"([{"type":"0","serial":"S","partnumber":"1"}])",
        R"([{"type":"0","serial":"S","revision":"1"}])",
        R"([{"type":"0","partnumber":"1","revision":"1"}])",
        R"([{"serial":"S","partnumber":"1","revision":"1"}])",
        R"([{"type":"0","serial":"S","PartNumber":"1","revision":"1"}])",
        R"([{"type":"0","serial":5,"partnumber":"1","revision":"1"}])",
        R"([{"type":"0","serial":null,"partnumber":"1","revision":"1"}])",
        R"([{"type":"0","serial":"S","partnumber":"1","revision":"1"}, 5])",
        R"([{"type":"0","serial":"S","partnumber":"1","revision":"1"}, {}])"};
    for (const auto& content : contents) {
        EXPECT_THAT(errorOf(content), MatchesRegex(m_error)) << content;
    }
}

TEST_F(SerialRecords, AreRefusedWithANumberThatIsNoText) {
    for (const auto* value : {"0", "1.5", "null", "true", "[]", "{}", R"(["1"])"}) {
        EXPECT_THAT(errorOf(recordWith(value, R"("1")", R"("1")")), MatchesRegex(m_error)) << value;
        EXPECT_THAT(errorOf(recordWith(R"("1")", value, R"("1")")), MatchesRegex(m_error)) << value;
        EXPECT_THAT(errorOf(recordWith(R"("1")", R"("1")", value)), MatchesRegex(m_error)) << value;
    }
}

TEST_F(SerialRecords, AreRefusedWithANumberAboveTheRange) {
    for (const auto* value : {R"("2147483648")", R"("4294967296")", R"("99999999999999999999")"}) {
        EXPECT_THAT(errorOf(recordWith(value, R"("1")", R"("1")")), MatchesRegex(m_error)) << value;
        EXPECT_THAT(errorOf(recordWith(R"("1")", value, R"("1")")), MatchesRegex(m_error)) << value;
        EXPECT_THAT(errorOf(recordWith(R"("1")", R"("1")", value)), MatchesRegex(m_error)) << value;
    }
}

TEST_F(SerialRecords, AreRefusedWhereverTheFileEndsTooEarly) {
    const auto whole = recordWith(R"("0")", R"("100001")", R"("1")");
    for (std::size_t length = 0; length < whole.size(); ++length) {
        EXPECT_THAT(errorOf(whole.substr(0, length)), MatchesRegex(m_error)) << length;
    }
    EXPECT_EQ(read(whole).size(), 1U);
}

TEST_F(SerialRecords, AreRefusedInAnyDepth) {
    EXPECT_THAT(errorOf(std::string(1000000, '[')), MatchesRegex(m_error));
    EXPECT_THAT(errorOf(std::string(1000000, '[') + std::string(1000000, ']')),
                MatchesRegex(m_error));
}

TEST_F(SerialRecords, AreRefusedWithoutAFile) {
    EXPECT_THROW(readSerialRecords(m_room / "missing"), SerialNumberError);
    EXPECT_THROW(readSerialRecords(m_room.path()), SerialNumberError);
}

TEST_F(SerialRecordsDeathTest, OtherCharactersThanDigitsEndTheProcess) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    for (const auto* value : {R"("")", R"("-1")", R"("1x")"}) {
        EXPECT_DEATH(read(recordWith(value, R"("1")", R"("1")")),
                     "Assertion failed: \\[CppUtil::str_isonly_digits\\(type\\)\\]");
        EXPECT_DEATH(read(recordWith(R"("1")", value, R"("1")")),
                     "Assertion failed: \\[CppUtil::str_isonly_digits\\(partNumber\\)\\]");
        EXPECT_DEATH(read(recordWith(R"("1")", R"("1")", value)),
                     "Assertion failed: \\[CppUtil::str_isonly_digits\\(revision\\)\\]");
    }
}

TEST_F(SerialRecordsDeathTest, OfSeveralWrongNumbersTheTypeIsNamedThenThePartNumber) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_DEATH(read(recordWith(R"("x")", R"("x")", R"("x")")),
                 "Assertion failed: \\[CppUtil::str_isonly_digits\\(type\\)\\]");
    EXPECT_DEATH(read(recordWith(R"("1")", R"("x")", R"("x")")),
                 "Assertion failed: \\[CppUtil::str_isonly_digits\\(partNumber\\)\\]");
}

}  // namespace
}  // namespace Hox::SystemAPI
