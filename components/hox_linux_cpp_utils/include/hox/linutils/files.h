#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

/// Files and folders whose content must not get lost unnoticed: every call to the system is looked
/// at, and what fails throws std::filesystem::filesystem_error with the path and the system's
/// reason. What has been done until then stays. Free of shared state: any thread may call. Paths
/// are texts: to take them apart costs more than some of the calls.
namespace Hox::LinuxCppUtil {

/// Makes the folder and those above it that are missing, each for its owner (all rights) and its
/// group (reading) alone, whatever the umask. False where the folder is there already, which keeps
/// its rights then.
bool makeFolders(const std::string& folder);

/// Writes the text into a file for its owner (reading and writing) and its group (reading) alone,
/// whatever the umask. The file is made if missing and emptied otherwise.
void writeFile(const std::string& file, std::string_view text);

/// Gives a file another name, in place of what has that name.
void renameFile(const std::string& from, const std::string& to);

/// The whole content of a file. A pipe reads as empty.
std::string readFile(const std::string& file);

/// Calls `visit` with everything below the folder, with a folder ahead of what is in it. Links are
/// not followed. The path of a failure is that of the folder or of the entry visited last.
void forEachEntry(const std::string& folder,
                  const std::function<void(const std::filesystem::directory_entry&)>& visit);

/// Removes the folder with all that is in it, also where its owner has no rights in it but may give
/// them to himself. It is no error if nothing is there.
void removeFolder(const std::string& folder);

}  // namespace Hox::LinuxCppUtil
