#pragma once

#include <filesystem>
#include <string>

namespace Hox::Testing {

/// A new, empty folder that is removed with its content when the object is destroyed.
///
/// The folders of child processes are below one folder of the test program, whatever parent is
/// given. They are removed with that folder if not earlier: the child of a death test creates
/// everything that its fixture creates, and aborts.
class TempDir {
public:
    /// Creates the folder below the system's folder for temporary files; throws std::system_error.
    TempDir();
    /// The same below an existing folder.
    explicit TempDir(const std::filesystem::path& parent);
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    TempDir(TempDir&&) = delete;
    TempDir& operator=(TempDir&&) = delete;

    /// The absolute path of the folder.
    const std::filesystem::path& path() const;

    /// The path of an entry of the folder, which need not exist.
    std::filesystem::path operator/(const std::string& name) const;

private:
    std::filesystem::path m_path;
};

}  // namespace Hox::Testing
