#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// Small functions on texts, which are sequences of bytes here. They share no state: any thread may
/// call them. Unless documented otherwise they throw std::bad_alloc only.
namespace Hox::CppUtil {

// NOLINTBEGIN(readability-identifier-naming)

/// Expression for a time of day with hundredths of a second, as in "23:59:59.99".
const std::string TIME_WITH_HUNDREDTHS_REGEX =
    "(?:[01][0-9]|2[0-3]):[0-5][0-9]:[0-5][0-9].[0-9][0-9]";

/// Expression for a time of day with seconds, as in "23:59:59".
const std::string TIME_WITH_SECONDS_REGEX = "(?:[01][0-9]|2[0-3]):[0-5][0-9]:[0-5][0-9]";

/// Expression for a time of day with minutes, as in "23:59".
const std::string TIME_WITH_MINUTES_REGEX = "(?:[01][0-9]|2[0-3]):[0-5][0-9]";

/// Whether the text is not empty and consists of decimal digits only.
bool str_isonly_digits(const std::string& s);

/// The index of the n-th occurrence of the byte, counted from 1 (0 counts as 1), or -1 if there are
/// fewer.
std::ptrdiff_t str_find_nth(const std::string& s, char c, unsigned n);

/// Whether the text begins with the start, which is the first argument.
bool str_starts_with(const std::string& start, const std::string& s);

/// Whether the text ends with the end, which is the first argument.
bool str_ends_with(const std::string& end, const std::string& s);

/// A copy with tolower applied to each byte, so by the locale's character type.
std::string str_to_lower(const std::string& s);

/// The bytes that the hexadecimal digits in [begin, end) represent: two digits of either case per
/// byte, the high one first. Throws ParsingError if the number of characters is zero or odd, or if
/// a character is not a hexadecimal digit.
std::vector<std::uint8_t> str_hex_to_bytes(const char* begin, const char* end);

/// The same for a whole text.
std::vector<std::uint8_t> str_hex_to_bytes(const std::string& s);

/// The last n bytes, or the whole text if it has no more than n.
std::string str_right(const std::string& s, unsigned n);

/// A copy with each "/" replaced by "_".
std::string str_replace_slashes(const std::string& s);

/// The pieces between the delimiters, empty ones included: a delimiter at the start or end yields
/// an empty piece. An empty text yields no piece.
std::vector<std::string> str_split(const std::string& s, char delimiter);

/// A copy without the bytes for which isspace holds, including those inside the text.
std::string str_strip_spaces(const std::string& s);

/// A copy without any line feed.
std::string str_strip_newlines(const std::string& s);

/// Whether the whole text matches "(-)?(0x)?([0-9a-fA-F][0-9a-fA-F]*)|((0x)?0)": hexadecimal digits
/// after an optional sign and an optional "0x". Accepts texts of any length.
bool str_is_number(const std::string& s);

/// Whether the whole text matches "[A-Z]+". Accepts texts of any length.
bool str_is_uppercase(const std::string& s);

/// Whether the whole text is UTF-8 as Unicode defines it: without surrogates, overlong forms and
/// code points above U+10FFFF. Zero bytes and the empty text are.
bool str_is_utf8(const std::string& s);

// NOLINTEND(readability-identifier-naming)

}  // namespace Hox::CppUtil
