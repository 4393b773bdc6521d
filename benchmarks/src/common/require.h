#pragma once

namespace Hox::Benchmarks {

/// Throws std::runtime_error with the text.
void require(bool condition, const char* what);

}  // namespace Hox::Benchmarks
