#include "write_all.h"

#include <unistd.h>

#include <cerrno>

namespace Hox::Ctl {

bool writeAll(int file, std::string_view text) {
    while (!text.empty()) {
        const auto count = ::write(file, text.data(), text.size());
        if (count < 0 && errno != EINTR) {
            return false;
        }
        text.remove_prefix(count < 0 ? 0 : static_cast<std::size_t>(count));
    }
    return true;
}

}  // namespace Hox::Ctl
