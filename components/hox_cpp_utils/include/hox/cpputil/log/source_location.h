#pragma once

#include <spdlog/common.h>

namespace Hox::Log {

/// The source location of the caller, as first argument of a logger: the patterns print file and
/// line.
constexpr spdlog::source_loc here(const char* file = __builtin_FILE(), int line = __builtin_LINE(),
                                  const char* function = __builtin_FUNCTION()) {
    return spdlog::source_loc{file, line, function};
}

}  // namespace Hox::Log
