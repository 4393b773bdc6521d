#include "changed_slices.h"

#include <filesystem>
#include <iterator>
#include <limits>
#include <string_view>

#include "log_tail.h"

namespace Hox::Ctl {

const char* const defaultLog = "/var/log/halvo/halvo-system.log";

namespace {

/// The text of a record without its time, level and place.
std::string_view textOf(std::string_view line) {
    while (!line.empty() && line.front() == '[') {
        const auto end = line.find(']');
        line.remove_prefix(end == std::string_view::npos ? line.size() : end + 1);
        line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
    }
    return line;
}

bool startsWith(std::string_view text, std::string_view start) {
    return text.substr(0, start.size()) == start;
}

/// "halvo.1.log" for "halvo.log".
std::string formerLog(const std::filesystem::path& path) {
    auto former = path;
    return former.replace_filename(path.stem().string() + ".1" + path.extension().string());
}

}  // namespace

std::vector<std::string> linesOfLog(const std::string& path) {
    constexpr auto all = std::numeric_limits<std::size_t>::max();
    auto latest = LogTail(path).last(all);
    const auto former = formerLog(path);
    if (!std::filesystem::exists(former)) {
        return latest;
    }
    auto lines = LogTail(former).last(all);
    lines.insert(lines.end(), std::make_move_iterator(latest.begin()),
                 std::make_move_iterator(latest.end()));
    return lines;
}

std::set<std::string> changedSlices(const std::vector<std::string>& lines) {
    constexpr std::string_view change = "Updating system configuration for /sys/conf/";
    std::set<std::string> changed;
    std::set<std::string> atSave;
    for (const auto& line : lines) {
        const auto text = textOf(line);
        if (startsWith(text, change)) {
            const auto slice = text.substr(change.size());
            if (slice.find(" - ") == std::string_view::npos) {  // otherwise the record of one key
                changed.emplace(slice);
            }
        } else if (text == "Saving changes") {
            atSave = std::move(changed);
            changed.clear();
        } else if (startsWith(text, "Save failed - ")) {
            changed.merge(atSave);
        } else if (text == "Discarding unsaved changes" ||
                   text.find(" is ready, pid ") != std::string_view::npos) {
            changed.clear();
        }
    }
    return changed;
}

}  // namespace Hox::Ctl
