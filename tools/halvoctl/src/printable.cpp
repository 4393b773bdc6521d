#include "printable.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace Hox::Ctl {

namespace {

constexpr unsigned char continuationMask = 0xC0;
constexpr unsigned char continuationMark = 0x80;

bool isContinuation(char byte) {
    return (static_cast<unsigned char>(byte) & continuationMask) == continuationMark;
}

/// The bytes of the character at the start, 0 if it is not UTF-8.
std::size_t characterSize(std::string_view text) {
    const auto first = static_cast<unsigned char>(text.front());
    if (first < 0x80) {
        return 1;
    }
    const std::size_t size = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() < size ||
        !std::all_of(text.begin() + 1, text.begin() + static_cast<std::ptrdiff_t>(size),
                     isContinuation)) {
        return 0;
    }
    const auto second = static_cast<unsigned char>(text[1]);
    const bool isTooLong = (first == 0xE0 && second < 0xA0) || (first == 0xF0 && second < 0x90);
    const bool isOutside = (first == 0xED && second >= 0xA0) || (first == 0xF4 && second >= 0x90);
    return isTooLong || isOutside ? 0 : size;
}

/// Whether the character at the start must not be printed.
bool isControl(std::string_view text) {
    const auto first = static_cast<unsigned char>(text.front());
    return first < 0x20 || first == 0x7F ||
           (first == 0xC2 && text.size() > 1 && static_cast<unsigned char>(text[1]) < 0xA0);
}

}  // namespace

std::string printable(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const auto size = isControl(text) ? 0 : characterSize(text);
        if (size == 0) {
            result += text.front() == '\n' ? "\\n"
                      : text.front() == '\t'
                          ? "\\t"
                          : fmt::format("\\x{:02x}", static_cast<unsigned char>(text.front()));
        } else {
            result += text.substr(0, size);
        }
        text.remove_prefix(std::max<std::size_t>(size, 1));
    }
    return result;
}

std::string printableLines(std::string_view text) {
    std::string result;
    for (auto end = text.find('\n'); end != std::string_view::npos; end = text.find('\n')) {
        result += printable(text.substr(0, end)) + '\n';
        text.remove_prefix(end + 1);
    }
    return result + printable(text);
}

bool isUtf8(std::string_view text) {
    while (!text.empty()) {
        const auto size = characterSize(text);
        if (size == 0) {
            return false;
        }
        text.remove_prefix(size);
    }
    return true;
}

std::size_t characters(std::string_view text) {
    return static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char byte) { return !isContinuation(byte); }));
}

}  // namespace Hox::Ctl
