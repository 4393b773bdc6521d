#include "clock_text.h"

#include <fmt/chrono.h>

#include <cstdint>
#include <ctime>

namespace Hox::Ctl {

namespace {

std::tm localTime(std::chrono::system_clock::time_point time) {
    const auto seconds = std::chrono::system_clock::to_time_t(time);
    std::tm result{};
    ::localtime_r(&seconds, &result);
    return result;
}

std::string elapsedText(std::int64_t seconds) {
    constexpr std::int64_t minute = 60;
    constexpr std::int64_t hour = 60 * minute;
    constexpr std::int64_t day = 24 * hour;
    if (seconds < minute) {
        return fmt::format("{} s", seconds < 0 ? 0 : seconds);
    }
    if (seconds < hour) {
        return fmt::format("{} min", seconds / minute);
    }
    return seconds < day ? fmt::format("{} h", seconds / hour) : fmt::format("{} d", seconds / day);
}

}  // namespace

std::string timeText(std::chrono::system_clock::time_point time,
                     std::chrono::system_clock::time_point now) {
    const auto then = localTime(time);
    const auto today = localTime(now);
    const bool isToday = then.tm_year == today.tm_year && then.tm_yday == today.tm_yday;
    return isToday ? fmt::format("{:%H:%M:%S}", then) : fmt::format("{:%Y-%m-%d %H:%M:%S}", then);
}

std::string sinceText(std::chrono::system_clock::time_point time,
                      std::chrono::system_clock::time_point now) {
    const auto ago = std::chrono::duration_cast<std::chrono::seconds>(now - time).count();
    return timeText(time, now) + " (" + elapsedText(ago) + ")";
}

}  // namespace Hox::Ctl
