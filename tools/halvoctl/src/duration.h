#pragma once

#include <chrono>
#include <string>

namespace Hox::Ctl {

/// A length of time as the user writes it: a whole number and a unit of ms, s, m or h; without one
/// seconds. Throws CtlError for any other text and for more than ten years.
std::chrono::milliseconds parseDuration(const std::string& text);

/// The same for a time after which something happens: it is not 0.
std::chrono::milliseconds parseTimeLimit(const std::string& text);

/// An age in one unit, rounded down, as in 5s, 2m, 3h or 4d. A negative one is 0s.
std::string ageText(std::chrono::milliseconds age);

}  // namespace Hox::Ctl
