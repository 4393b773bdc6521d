#include "hox/cpputil/string/string_utils.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <random>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "hox/cpputil/error/parsing_error.h"

namespace Hox::CppUtil {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::StartsWith;

std::string allBytes() {
    std::string text;
    for (int byte = 0; byte < 256; ++byte) {
        text += static_cast<char>(byte);
    }
    return text;
}

TEST(StringUtils, IsOnlyDigits) {
    const std::vector<std::pair<std::string, bool>> table = {
        {"", false},    {"0", true},  {"0123456789", true}, {"-1", false},
        {"1 ", false},  {"a", false}, {"1a", false},        {"a1", false},
        {"1.0", false}, {"/", false}, {":", false},         {std::string("1\0", 2), false},
        {"\xb2", false}};
    for (const auto& [text, expected] : table) {
        EXPECT_EQ(str_isonly_digits(text), expected) << text;
    }
}

TEST(StringUtils, FindNth) {
    struct Row {
        std::string text;
        char c;
        unsigned n;
        std::ptrdiff_t expected;
    };
    const std::vector<Row> table = {{"a/b/c", '/', 1, 1},
                                    {"a/b/c", '/', 2, 3},
                                    {"a/b/c", '/', 3, -1},
                                    {"a/b/c", '/', 0, 1},
                                    {"a/b/c", '/', 5, -1},
                                    {"a/b/c", '/', 6, -1},
                                    {"///", '/', 1, 0},
                                    {"///", '/', 2, 1},
                                    {"///", '/', 3, 2},
                                    {"///", '/', 4, -1},
                                    {"", '/', 0, -1},
                                    {"", '/', 1, -1},
                                    {"abc", 'x', 1, -1},
                                    {"abc", 'x', 0, -1},
                                    {"abc", 'c', 4000000000U, -1},
                                    {std::string("a\0b\0", 4), '\0', 2, 3}};
    for (const auto& row : table) {
        EXPECT_EQ(str_find_nth(row.text, row.c, row.n), row.expected)
            << row.text << " " << row.c << " " << row.n;
    }
}

TEST(StringUtils, StartsWithTakesTheStartFirst) {
    EXPECT_TRUE(str_starts_with("ab", "abc"));
    EXPECT_FALSE(str_starts_with("abc", "ab"));
    EXPECT_TRUE(str_starts_with("abc", "abc"));
    EXPECT_FALSE(str_starts_with("bc", "abc"));
    EXPECT_TRUE(str_starts_with("", "abc"));
    EXPECT_TRUE(str_starts_with("", ""));
    EXPECT_FALSE(str_starts_with("a", ""));
}

TEST(StringUtils, EndsWithTakesTheEndFirst) {
    EXPECT_TRUE(str_ends_with("bc", "abc"));
    EXPECT_FALSE(str_ends_with("abc", "bc"));
    EXPECT_TRUE(str_ends_with("abc", "abc"));
    EXPECT_FALSE(str_ends_with("ab", "abc"));
    EXPECT_TRUE(str_ends_with("", "abc"));
    EXPECT_TRUE(str_ends_with("", ""));
    EXPECT_FALSE(str_ends_with("a", ""));
}

TEST(StringUtils, ToLowerChangesEachCapitalByte) {
    EXPECT_EQ(str_to_lower(""), "");
    EXPECT_EQ(str_to_lower("AbC-12 xYZ"), "abc-12 xyz");
    auto expected = allBytes();
    for (char c = 'A'; c <= 'Z'; ++c) {
        expected[static_cast<unsigned char>(c)] = static_cast<char>(c - 'A' + 'a');
    }
    EXPECT_EQ(str_to_lower(allBytes()), expected);
}

TEST(StringUtils, HexToBytesReadsTheHighDigitFirst) {
    EXPECT_THAT(str_hex_to_bytes("12"), ElementsAre(0x12));
    EXPECT_THAT(str_hex_to_bytes("00ff0A"), ElementsAre(0, 0xff, 0x0a));
    EXPECT_EQ(str_hex_to_bytes("0123456789abcdef"), str_hex_to_bytes("0123456789ABCDEF"));
    EXPECT_THAT(str_hex_to_bytes("0123456789aBcDeF"),
                ElementsAre(0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef));
}

TEST(StringUtils, HexToBytesTakesAPieceOfAText) {
    const std::string text = "xx1fC0xx";
    EXPECT_THAT(str_hex_to_bytes(text.data() + 2, text.data() + 6), ElementsAre(0x1f, 0xc0));
}

std::string hexError(const std::string& text) {
    try {
        str_hex_to_bytes(text);
    } catch (const ParsingError& error) {
        return error.what();
    }
    return "no error";
}

TEST(StringUtils, HexToBytesRefusesAnEmptyOrOddLength) {
    for (const std::string text : {"", "1", "123", "xyz"}) {
        EXPECT_THAT(hexError(text),
                    StartsWith("Generic parsing Error: Invalid string length, must contain a "
                               "non-zero and even number of characters.("))
            << text;
    }
    EXPECT_THROW(str_hex_to_bytes(nullptr, nullptr), ParsingError);
}

TEST(StringUtils, HexToBytesRefusesAnInvalidCharacterAtAnyPosition) {
    for (std::size_t position = 0; position < 6; ++position) {
        for (const char c : allBytes()) {
            std::string text = "12cDeF";
            text[position] = c;
            const bool isDigit = std::string("0123456789abcdefABCDEF").find(c) != std::string::npos;
            EXPECT_THAT(
                hexError(text),
                StartsWith(isDigit ? "no error"
                                   : "Generic parsing Error: Invalid found character in string("))
                << text;
        }
    }
}

TEST(StringUtils, Right) {
    EXPECT_EQ(str_right("abcdef", 2), "ef");
    EXPECT_EQ(str_right("abcdef", 0), "");
    EXPECT_EQ(str_right("abcdef", 5), "bcdef");
    EXPECT_EQ(str_right("abcdef", 6), "abcdef");
    EXPECT_EQ(str_right("abcdef", 4000000000U), "abcdef");
    EXPECT_EQ(str_right("", 0), "");
    EXPECT_EQ(str_right("", 3), "");
}

TEST(StringUtils, ReplaceSlashes) {
    EXPECT_EQ(str_replace_slashes("/a//b/"), "_a__b_");
    EXPECT_EQ(str_replace_slashes("a_b\\c"), "a_b\\c");
    EXPECT_EQ(str_replace_slashes(""), "");
}

TEST(StringUtils, Split) {
    const std::vector<std::pair<std::string, std::vector<std::string>>> table = {
        {"", {}},
        {"a", {"a"}},
        {"a,b", {"a", "b"}},
        {"a,", {"a", ""}},
        {",a", {"", "a"}},
        {",", {"", ""}},
        {",,", {"", "", ""}},
        {"a,,b", {"a", "", "b"}},
        {"a b;c", {"a b;c"}}};
    for (const auto& [text, expected] : table) {
        EXPECT_THAT(str_split(text, ','), ElementsAreArray(expected)) << text;
    }
    EXPECT_THAT(str_split("a,b/c", '/'), ElementsAre("a,b", "c"));
    EXPECT_THAT(str_split(std::string("a\0b", 3), '\0'), ElementsAre("a", "b"));
}

TEST(StringUtils, StripSpacesRemovesThemInsideAsWell) {
    EXPECT_EQ(str_strip_spaces(" a\tb\nc\vd\fe\rf  g "), "abcdefg");
    EXPECT_EQ(str_strip_spaces(" \t\n"), "");
    EXPECT_EQ(str_strip_spaces(""), "");
    EXPECT_EQ(str_strip_spaces(allBytes()).size(), 256U - 6U);
}

TEST(StringUtils, StripNewlinesRemovesLineFeedsOnly) {
    EXPECT_EQ(str_strip_newlines("\na\r\n b\n\n"), "a\r b");
    EXPECT_EQ(str_strip_newlines("\n"), "");
    EXPECT_EQ(str_strip_newlines(""), "");
    EXPECT_EQ(str_strip_newlines(allBytes()).size(), 255U);
}

TEST(StringUtils, IsNumber) {
    for (const std::string text : {"0", "1", "42", "-42", "0x0", "0x1F", "-0xff", "ff", "-Ab", "00",
                                   "-0", "0123", "deadBEEF"}) {
        EXPECT_TRUE(str_is_number(text)) << text;
    }
    for (const std::string text : {"", "-", "0x", "-0x", "x", "--1", "0x-1", "+1", "1.5", "0X1F",
                                   "1 ", " 1", "g", "0xg", "0x0x1", "1\n", "h"}) {
        EXPECT_FALSE(str_is_number(text)) << text;
    }
}

TEST(StringUtils, IsUppercase) {
    for (const std::string text : {"A", "Z", "ABCXYZ"}) {
        EXPECT_TRUE(str_is_uppercase(text)) << text;
    }
    for (const std::string text : {"", "a", "Ab", "bA", "A1", "A B", "A_", "@", "[", "\xc3\x84"}) {
        EXPECT_FALSE(str_is_uppercase(text)) << text;
    }
}

/// Both functions replace a regular expression and must give its answer for each text.
class StringUtilsAgainstExpression : public testing::Test {
protected:
    void expectEqual(const std::string& text) {
        ASSERT_EQ(str_is_number(text), std::regex_match(text, m_number)) << text;
        ASSERT_EQ(str_is_uppercase(text), std::regex_match(text, m_uppercase)) << text;
    }

    const std::regex m_number{"(-)?(0x)?([0-9a-fA-F][0-9a-fA-F]*)|((0x)?0)",
                              std::regex::ECMAScript};
    const std::regex m_uppercase{"[A-Z]+", std::regex::ECMAScript};
};

TEST_F(StringUtilsAgainstExpression, OneByteAlone) {
    for (const char c : allBytes()) {
        expectEqual(std::string(1, c));
        expectEqual(std::string("A") + c);
        expectEqual(c + std::string("A"));
        expectEqual(std::string("0x") + c);
    }
}

TEST_F(StringUtilsAgainstExpression, AllShortTextsOfTheCharactersThatMatter) {
    const std::string alphabet = "-0x9aFgAZ";
    std::vector<std::string> texts = {""};
    for (int length = 0; length <= 4; ++length) {
        std::vector<std::string> longer;
        for (const auto& text : texts) {
            expectEqual(text);
            for (const char c : alphabet) {
                longer.push_back(text + c);
            }
        }
        texts = std::move(longer);
    }
}

TEST_F(StringUtilsAgainstExpression, RandomTexts) {
    const std::string alphabet("-0x19afAFgGZ \n\0", 15);
    std::mt19937 random(20240607);
    for (int i = 0; i < 5000; ++i) {
        std::string text = i % 2 == 0 ? "-0x" : "";
        const auto length = random() % 12;
        // Mostly characters that can match, otherwise nearly every text fails at the first one.
        while (text.size() < length) {
            text += alphabet[random() % (random() % 8 == 0 ? alphabet.size() : 9)];
        }
        expectEqual(text);
    }
}

TEST(StringUtils, JudgesTextsOfAnyLength) {
    const std::size_t length = 20'000'000;
    EXPECT_TRUE(str_is_number("-0x" + std::string(length, 'f')));
    EXPECT_FALSE(str_is_number("-0x" + std::string(length, 'f') + "g"));
    EXPECT_TRUE(str_is_uppercase(std::string(length, 'Q')));
    EXPECT_FALSE(str_is_uppercase(std::string(length, 'Q') + "q"));
}

TEST(StringUtils, KnowsUtf8) {
    const std::vector<std::string> good = {
        "",
        "plain",
        std::string("a\0b", 3),
        "\xC2\x80",
        "\xDF\xBF",
        "\xE0\xA0\x80",
        "\xED\x9F\xBF",
        "\xEE\x80\x80",
        "\xEF\xBF\xBF",
        "\xF0\x90\x80\x80",
        "\xF4\x8F\xBF\xBF",
        "K\xC3\xB6ln \xF0\x9F\x93\xBA",
    };
    for (const auto& text : good) {
        EXPECT_TRUE(str_is_utf8(text)) << testing::PrintToString(text);
    }
    const std::vector<std::string> bad = {
        "\x80",              // continues nothing
        "\xC1\xBF",          // overlong
        "\xE0\x9F\xBF",      // overlong
        "\xF0\x8F\xBF\xBF",  // overlong
        "\xED\xA0\x80",      // surrogate
        "\xF4\x90\x80\x80",  // above U+10FFFF
        "\xF5\x80\x80\x80",  // above U+10FFFF
        "\xFF",              // never
        "a\xC3",             // ends early
        "\xE2\x82",          // ends early
        "\xC3 ",             // no continuation byte
        "\xE2\x82z",         // no continuation byte
    };
    for (const auto& text : bad) {
        EXPECT_FALSE(str_is_utf8(text)) << testing::PrintToString(text);
        EXPECT_FALSE(str_is_utf8("good " + text + " good")) << testing::PrintToString(text);
    }
}

TEST(StringUtils, TimeExpressionsStandAsAgreed) {
    EXPECT_EQ(TIME_WITH_HUNDREDTHS_REGEX, "(?:[01][0-9]|2[0-3]):[0-5][0-9]:[0-5][0-9].[0-9][0-9]");
    EXPECT_EQ(TIME_WITH_SECONDS_REGEX, "(?:[01][0-9]|2[0-3]):[0-5][0-9]:[0-5][0-9]");
    EXPECT_EQ(TIME_WITH_MINUTES_REGEX, "(?:[01][0-9]|2[0-3]):[0-5][0-9]");
}

TEST(StringUtils, TimeExpressionsMatchTimesOfDay) {
    const std::regex hundredths(TIME_WITH_HUNDREDTHS_REGEX);
    const std::regex seconds(TIME_WITH_SECONDS_REGEX);
    const std::regex minutes(TIME_WITH_MINUTES_REGEX);
    EXPECT_TRUE(std::regex_match("23:59:59.99", hundredths));
    EXPECT_FALSE(std::regex_match("23:59:59", hundredths));
    EXPECT_TRUE(std::regex_match("00:00:00", seconds));
    EXPECT_FALSE(std::regex_match("24:00:00", seconds));
    EXPECT_TRUE(std::regex_match("19:05", minutes));
    EXPECT_FALSE(std::regex_match("19:60", minutes));
}

}  // namespace
}  // namespace Hox::CppUtil
