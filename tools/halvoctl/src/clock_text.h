#pragma once

#include <chrono>
#include <string>

namespace Hox::Ctl {

/// A time in the time zone of the machine, with the date unless it is of the day of now, as in
/// "18:39:23".
std::string timeText(std::chrono::system_clock::time_point time,
                     std::chrono::system_clock::time_point now);

/// A time in the time zone of the machine, with the date unless it is of the day of now, and how
/// long ago it was, as in "18:39:23 (4 min)".
std::string sinceText(std::chrono::system_clock::time_point time,
                      std::chrono::system_clock::time_point now);

}  // namespace Hox::Ctl
