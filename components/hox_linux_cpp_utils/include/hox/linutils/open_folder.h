#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "hox/linutils/raii_filedescriptors.h"

namespace Hox::LinuxCppUtil {

/// An open folder, for work on many of its entries: the system does not walk the whole path for
/// each. Names are relative to the folder and may have several components.
///
/// Failures are thrown as by the functions in files.h, with the whole path. Has no lock; one thread
/// at a time.
class OpenFolder {
public:
    /// What a folder holds; a link has the type of a link.
    struct Entry {
        std::string name;
        std::filesystem::file_type type;
    };

    /// The working folder of the process, which cannot be listed: names are paths. Opens nothing.
    OpenFolder() = default;

    /// Opens the folder at the path.
    explicit OpenFolder(const std::string& path);

    /// Opens a folder in this one; a link to a folder is refused.
    OpenFolder below(const std::string& name) const;

    /// As given, with the names below it appended.
    const std::string& path() const { return m_path; }

    /// All entries in the order of their names.
    std::vector<Entry> list() const;

    /// Whether the name is that of a regular file or of a link to one; false if there is none.
    bool isRegularFile(const std::string& name) const;

    /// What making a folder has found.
    enum class Made { Yes, WasThere, NoParent };

    /// Creates a folder with all rights for the owner and read access for the group only, whatever
    /// the umask. Whether an entry that was there is a folder is not examined.
    Made makeFolder(const std::string& name) const;

    /// As Hox::LinuxCppUtil::writeFile.
    void writeFile(const std::string& name, std::string_view text) const;

    /// As Hox::LinuxCppUtil::readFile.
    std::string readFile(const std::string& name) const;

    /// Renames an entry and replaces the one that has the new name.
    void rename(const std::string& from, const std::string& to) const;

    /// Removes a file, a link or anything else that is not a folder, if it is there.
    void removeFile(const std::string& name) const;

    /// Removes an empty folder, if it is there.
    void removeEmptyFolder(const std::string& name) const;

private:
    OpenFolder(const OpenFolder& parent, const std::string& name, int flags);

    int number() const;
    std::string pathOf(const std::string& name) const;
    OwnedFileDescriptor open(const std::string& name, int flags) const;
    std::filesystem::file_type typeOf(const std::string& name) const;
    void require(bool condition, const char* what, const std::string& name) const;

    std::string m_path;
    OwnedFileDescriptor m_descriptor;  // null: the working folder
};

}  // namespace Hox::LinuxCppUtil
