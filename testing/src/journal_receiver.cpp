#include "hox/testing/journal_receiver.h"

#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string_view>

namespace Hox::Testing {

namespace {

constexpr auto journalFolder = "/run/systemd/journal";

std::filesystem::path socketInItsFolder() {
    std::filesystem::create_directories(journalFolder);
    return std::filesystem::path(journalFolder) / "socket";
}

/// Removes the first line, with its line feed, from the text and returns it without the line feed.
std::string_view takeLine(std::string_view& text) {
    const auto end = text.find('\n');
    if (end == std::string_view::npos) {
        throw std::runtime_error("journal field without an end");
    }
    const auto line = text.substr(0, end);
    text.remove_prefix(end + 1);
    return line;
}

/// Removes a value from the start of the text: its size in 64 bits, lowest byte first, the bytes
/// and a line feed. This is the form of values that contain line feeds.
std::string_view takeSizedValue(std::string_view& text) {
    std::uint64_t size = 0;
    if (text.size() < sizeof(size)) {
        throw std::runtime_error("journal field without a size");
    }
    for (auto i = sizeof(size); i > 0; --i) {
        size = (size << 8U) | static_cast<unsigned char>(text[i - 1]);
    }
    text.remove_prefix(sizeof(size));
    if (text.size() <= size || text[size] != '\n') {
        throw std::runtime_error("journal field of a wrong size");
    }
    const auto value = text.substr(0, size);
    text.remove_prefix(size + 1);
    return value;
}

JournalReceiver::Record parse(std::string_view datagram) {
    JournalReceiver::Record record;
    while (!datagram.empty()) {
        const auto line = takeLine(datagram);
        const auto equals = line.find('=');
        const auto name = line.substr(0, equals);
        const auto value =
            equals != std::string_view::npos ? line.substr(equals + 1) : takeSizedValue(datagram);
        record.emplace_back(name, value);
    }
    return record;
}

}  // namespace

JournalReceiver::JournalReceiver() : m_receiver(socketInItsFolder()) {}

std::vector<JournalReceiver::Record> JournalReceiver::records() {
    std::vector<Record> result;
    for (const auto& datagram : m_receiver.messages()) {
        result.push_back(parse(datagram));
    }
    return result;
}

std::vector<std::string> JournalReceiver::messages() {
    std::vector<std::string> result;
    for (const auto& record : records()) {
        for (const auto& [name, value] : record) {
            if (name == "MESSAGE") {
                result.push_back(value);
            }
        }
    }
    return result;
}

}  // namespace Hox::Testing
