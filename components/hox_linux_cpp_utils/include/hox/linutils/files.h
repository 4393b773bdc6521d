#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

/// Operations on files and folders whose content must not get lost unnoticed. The result of every
/// system call is checked; a failure throws std::filesystem::filesystem_error with the path and the
/// system's reason. Steps done before the failure are not undone. No shared state: any thread may
/// call them. Paths are strings, because parsing a path costs more than some of the calls.
namespace Hox::LinuxCppUtil {

/// Creates the folder and its missing parents, each with all rights for the owner and read access
/// for the group only, whatever the umask. Returns false if the folder exists already; it keeps its
/// rights then.
bool makeFolders(const std::string& folder);

/// Writes the text into a file that the owner can read and write and the group can read, whatever
/// the umask. The file is created if missing and truncated otherwise.
void writeFile(const std::string& file, std::string_view text);

/// Renames a file and replaces the file that has the new name.
void renameFile(const std::string& from, const std::string& to);

/// The whole content of a file. A pipe reads as empty.
std::string readFile(const std::string& file);

/// Gets the path of a folder, relative to the one that the visit began with: empty for that one,
/// else with a leading slash; and the content of the file in it.
using FileVisit = std::function<void(const std::string& where, std::string content)>;

/// Calls `visit` for each file of this name in the folder and at any depth below it, in the order
/// of the names, for a folder before its content. A link to a file is read, a link to a folder is
/// not followed. As many folders are open at once as the files are deep.
void readFilesNamed(const std::string& name, const std::string& folder, const FileVisit& visit);

/// Removes the folder with its content, even if the owner has no rights in it but may grant them to
/// itself. It is not an error if the folder does not exist.
void removeFolder(const std::string& folder);

}  // namespace Hox::LinuxCppUtil
