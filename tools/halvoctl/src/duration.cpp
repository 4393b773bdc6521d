#include "duration.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <map>
#include <system_error>

#include "ctl_error.h"

namespace Hox::Ctl {

namespace {

using std::chrono::milliseconds;

constexpr std::chrono::hours day(24);
constexpr auto longest = 3650 * day;

const std::map<std::string, milliseconds>& units() {
    static const std::map<std::string, milliseconds> all{{"ms", milliseconds(1)},
                                                         {"s", std::chrono::seconds(1)},
                                                         {"", std::chrono::seconds(1)},
                                                         {"m", std::chrono::minutes(1)},
                                                         {"h", std::chrono::hours(1)}};
    return all;
}

}  // namespace

milliseconds parseDuration(const std::string& text) {
    std::uint32_t count = 0;
    const auto* const end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, count);
    const auto unit = units().find(std::string(parsed.ptr, end));
    if (parsed.ec != std::errc() || unit == units().end() ||
        unit->second * std::int64_t{count} > longest) {
        throw CtlError(ExitCode::Usage, "\"" + text + "\" is no length of time",
                       "for example 200ms, 10s, 5m or 1h");
    }
    return unit->second * std::int64_t{count};
}

milliseconds parseTimeLimit(const std::string& text) {
    const auto time = parseDuration(text);
    if (time.count() == 0) {
        throw CtlError(ExitCode::Usage, "\"" + text + "\" is no time to wait");
    }
    return time;
}

std::string ageText(milliseconds age) {
    const auto seconds =
        std::max<std::int64_t>(0, std::chrono::duration_cast<std::chrono::seconds>(age).count());
    constexpr std::int64_t minute = 60;
    constexpr std::int64_t hour = 60 * minute;
    const auto dayLength = std::chrono::seconds(day).count();
    if (seconds < minute) {
        return std::to_string(seconds) + "s";
    }
    if (seconds < hour) {
        return std::to_string(seconds / minute) + "m";
    }
    if (seconds < dayLength) {
        return std::to_string(seconds / hour) + "h";
    }
    return std::to_string(seconds / dayLength) + "d";
}

}  // namespace Hox::Ctl
