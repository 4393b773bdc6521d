#include "hox/cpputil/string/string_utils.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <optional>

#include "hox/cpputil/error/parsing_error.h"

namespace Hox::CppUtil {

namespace {

bool isBetween(char c, char first, char last) {
    return first <= c && c <= last;
}

int hexDigitValue(char c) {
    if (isBetween(c, '0', '9')) {
        return c - '0';
    }
    if (isBetween(c, 'A', 'F')) {
        return c - 'A' + 10;
    }
    if (isBetween(c, 'a', 'f')) {
        return c - 'a' + 10;
    }
    return -1;
}

/// What may follow the first byte of a UTF-8 character.
struct Utf8Rest {
    std::size_t length = 0;
    unsigned char least = 0x80;  // of the second byte
    unsigned char most = 0xBF;   // of the second byte
};

/// Nothing if the byte begins no character.
std::optional<Utf8Rest> utf8Rest(unsigned char first) {
    if (first < 0x80) {
        return Utf8Rest{0};
    }
    if (first >= 0xC2 && first <= 0xDF) {
        return Utf8Rest{1};
    }
    if (first >= 0xE0 && first <= 0xEF) {
        // E0 would begin an overlong form, ED a surrogate.
        return Utf8Rest{2, static_cast<unsigned char>(first == 0xE0 ? 0xA0 : 0x80),
                        static_cast<unsigned char>(first == 0xED ? 0x9F : 0xBF)};
    }
    if (first >= 0xF0 && first <= 0xF4) {
        return Utf8Rest{3, static_cast<unsigned char>(first == 0xF0 ? 0x90 : 0x80),
                        static_cast<unsigned char>(first == 0xF4 ? 0x8F : 0xBF)};
    }
    return std::nullopt;
}

template <typename Predicate>
std::string copyWithout(const std::string& s, Predicate predicate) {
    std::string result;
    result.reserve(s.size());
    std::remove_copy_if(s.begin(), s.end(), std::back_inserter(result), predicate);
    return result;
}

}  // namespace

// NOLINTBEGIN(readability-identifier-naming)

bool str_isonly_digits(const std::string& s) {
    return !s.empty() &&
           std::all_of(s.begin(), s.end(), [](char c) { return isBetween(c, '0', '9'); });
}

std::ptrdiff_t str_find_nth(const std::string& s, char c, unsigned n) {
    auto position = s.find(c);
    for (unsigned found = 1; found < n && position != std::string::npos; ++found) {
        position = s.find(c, position + 1);
    }
    return position == std::string::npos ? -1 : static_cast<std::ptrdiff_t>(position);
}

bool str_starts_with(const std::string& start, const std::string& s) {
    return s.compare(0, start.size(), start) == 0;
}

bool str_ends_with(const std::string& end, const std::string& s) {
    return s.size() >= end.size() && s.compare(s.size() - end.size(), end.size(), end) == 0;
}

std::string str_to_lower(const std::string& s) {
    std::string result = s;
    std::transform(s.begin(), s.end(), result.begin(), [](char c) {
        return static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    });
    return result;
}

std::vector<std::uint8_t> str_hex_to_bytes(const char* begin, const char* end) {
    const auto length = end - begin;
    if (length == 0 || length % 2 != 0) {
        throw ParsingError(
            "Invalid string length, must contain a non-zero and even number of characters.",
            __FILE__, __LINE__);
    }
    std::vector<std::uint8_t> bytes;
    bytes.reserve(static_cast<std::size_t>(length / 2));
    for (const auto* pair = begin; pair != end; pair += 2) {
        const int high = hexDigitValue(pair[0]);
        const int low = hexDigitValue(pair[1]);
        if (high == -1 || low == -1) {
            throw ParsingError("Invalid found character in string", __FILE__, __LINE__);
        }
        bytes.push_back(static_cast<std::uint8_t>(high * 16 + low));
    }
    return bytes;
}

std::vector<std::uint8_t> str_hex_to_bytes(const std::string& s) {
    return str_hex_to_bytes(s.data(), s.data() + s.size());
}

std::string str_right(const std::string& s, unsigned n) {
    return n < s.size() ? s.substr(s.size() - n) : s;
}

std::string str_replace_slashes(const std::string& s) {
    std::string result = s;
    std::replace(result.begin(), result.end(), '/', '_');
    return result;
}

std::vector<std::string> str_split(const std::string& s, char delimiter) {
    std::vector<std::string> pieces;
    std::string piece;
    for (const char c : s) {
        if (c == delimiter) {
            pieces.push_back(piece);
            piece.clear();
        } else {
            piece += c;
        }
    }
    if (!pieces.empty() || !piece.empty()) {
        pieces.push_back(piece);
    }
    return pieces;
}

std::string str_strip_spaces(const std::string& s) {
    return copyWithout(s, [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; });
}

std::string str_strip_newlines(const std::string& s) {
    return copyWithout(s, [](char c) { return c == '\n'; });
}

// Both expressions are matched by hand: the standard library's matcher recurses with the length of
// its subject, and a long text would overflow the stack.

bool str_is_number(const std::string& s) {
    auto digits = s.begin();
    if (digits != s.end() && *digits == '-') {
        ++digits;
    }
    if (s.end() - digits > 2 && digits[0] == '0' && digits[1] == 'x') {
        digits += 2;
    }
    return digits != s.end() &&
           std::all_of(digits, s.end(), [](char c) { return hexDigitValue(c) != -1; });
}

bool str_is_uppercase(const std::string& s) {
    return !s.empty() &&
           std::all_of(s.begin(), s.end(), [](char c) { return isBetween(c, 'A', 'Z'); });
}

bool str_is_utf8(const std::string& s) {
    auto byte = s.begin();
    while (byte != s.end()) {
        const auto rest = utf8Rest(static_cast<unsigned char>(*byte++));
        if (!rest || s.end() - byte < static_cast<std::ptrdiff_t>(rest->length)) {
            return false;
        }
        for (std::size_t i = 0; i < rest->length; ++i, ++byte) {
            const auto value = static_cast<unsigned char>(*byte);
            if (value < (i == 0 ? rest->least : 0x80) || value > (i == 0 ? rest->most : 0xBF)) {
                return false;
            }
        }
    }
    return true;
}

// NOLINTEND(readability-identifier-naming)

}  // namespace Hox::CppUtil
