#include "hox/cpputil/error/error.h"

namespace Hox {

Error::Error(const std::string& message, const char* file, int line)
    : m_text(message + "(" + file + ":" + std::to_string(line) + ")") {}

const char* Error::what() const noexcept {
    return m_text.c_str();
}

}  // namespace Hox
