#include "hox/testing/temp_dir.h"

#include <cerrno>
#include <cstdlib>
#include <system_error>

namespace Hox::Testing {

TempDir::TempDir() : TempDir(std::filesystem::temp_directory_path()) {}

TempDir::TempDir(const std::filesystem::path& parent) {
    auto pattern = (parent / "halvo-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), "mkdtemp " + pattern);
    }
    m_path = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

const std::filesystem::path& TempDir::path() const {
    return m_path;
}

std::filesystem::path TempDir::operator/(const std::string& name) const {
    return m_path / name;
}

}  // namespace Hox::Testing
