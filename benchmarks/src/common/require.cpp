#include "common/require.h"

#include <stdexcept>

namespace Hox::Benchmarks {

void require(bool condition, const char* what) {
    if (!condition) {
        throw std::runtime_error(what);
    }
}

}  // namespace Hox::Benchmarks
