#pragma once

#include <filesystem>
#include <string>

namespace Hox::Testing {

/// A new, empty folder that goes away with the object, with all that is in it.
///
/// Those of child processes lie below one folder of the test program, whatever parent they are
/// given, and go away with it at the latest: the child of a death test makes all that its fixture
/// makes, and aborts.
class TempDir {
public:
    /// Makes the folder below the system's folder for temporary files; throws std::system_error.
    TempDir();
    /// The same below a folder that exists.
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
