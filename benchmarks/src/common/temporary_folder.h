#pragma once

#include <filesystem>
#include <string>

namespace Hox::Benchmarks {

/// A temporary folder, removed when the object is destroyed.
class TemporaryFolder {
public:
    /// Throws std::runtime_error if it cannot be created.
    explicit TemporaryFolder(const std::filesystem::path& parent);
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder(TemporaryFolder&&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(TemporaryFolder&&) = delete;

    std::filesystem::path operator/(const char* name) const;

private:
    std::string m_path;
};

}  // namespace Hox::Benchmarks
