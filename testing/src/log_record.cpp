#include "hox/testing/log_record.h"

#include <tuple>

namespace Hox::Testing {

bool operator==(const LogRecord& left, const LogRecord& right) {
    return std::tie(left.logger, left.level, left.text) ==
           std::tie(right.logger, right.level, right.text);
}

std::ostream& operator<<(std::ostream& out, const LogRecord& record) {
    const auto level = spdlog::level::to_string_view(record.level);
    return out << "[" << std::string(level.data(), level.size()) << "][" << record.logger << "] "
               << record.text;
}

}  // namespace Hox::Testing
