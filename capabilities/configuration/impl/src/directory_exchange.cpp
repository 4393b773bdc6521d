#include "directory_exchange.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "hox/cpputil/assertion/assertion.h"

namespace Hox::Capability::Configuration {

void exchangeDirectories(const std::filesystem::path& from, const std::filesystem::path& to) {
    const auto first = std::filesystem::absolute(from);
    const auto second = std::filesystem::absolute(to);
    // Absolute names need no directory to start from.
    if (::renameat2(0, first.c_str(), 0, second.c_str(), RENAME_EXCHANGE) != 0) {
        HOX_ASSERT_MSG(false, "atomic rename exchange failed with errno " + std::to_string(errno));
        std::abort();
    }
}

}  // namespace Hox::Capability::Configuration
