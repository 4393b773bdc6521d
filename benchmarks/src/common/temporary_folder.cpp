#include "common/temporary_folder.h"

#include <cstdlib>
#include <stdexcept>
#include <system_error>

namespace fs = std::filesystem;

namespace Hox::Benchmarks {

TemporaryFolder::TemporaryFolder(const fs::path& parent)
    : m_path((parent / "halvo-store.XXXXXX").string()) {
    if (::mkdtemp(m_path.data()) == nullptr) {
        throw std::runtime_error("Cannot make a folder in " + parent.string());
    }
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    fs::remove_all(m_path, ignored);
}

fs::path TemporaryFolder::operator/(const char* name) const {
    return fs::path(m_path) / name;
}

}  // namespace Hox::Benchmarks
