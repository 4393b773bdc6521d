#include "logger_name.h"

namespace Hox::Ctl {

namespace {

/// Without everything in angle brackets and in parentheses.
std::string withoutArguments(const std::string& name) {
    std::string result;
    int depth = 0;
    for (const char c : name) {
        if (c == '<' || c == '(') {
            ++depth;
        } else if ((c == '>' || c == ')') && depth > 0) {
            --depth;
        } else if (depth == 0) {
            result += c;
        }
    }
    return result;
}

}  // namespace

std::string shortLoggerName(const std::string& name) {
    const auto plain = withoutArguments(name);
    const auto colons = plain.rfind("::");
    auto last = colons == std::string::npos ? plain : plain.substr(colons + 2);
    return last.empty() ? "(default)" : last;
}

}  // namespace Hox::Ctl
