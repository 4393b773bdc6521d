#pragma once

#include <string>
#include <string_view>

namespace Hox::Ctl {

/// The text with everything escaped that could change a terminal or break a line: control
/// characters and bytes that are not UTF-8, as in "\x1b". Texts of a service are not trusted.
std::string printable(std::string_view text);

/// The same for a text of several lines, whose ends stay.
std::string printableLines(std::string_view text);

/// Whether the text is UTF-8.
bool isUtf8(std::string_view text);

/// The number of characters of an UTF-8 text.
std::size_t characters(std::string_view text);

}  // namespace Hox::Ctl
