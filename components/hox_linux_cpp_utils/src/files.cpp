#include "hox/linutils/files.h"

#include <system_error>

#include "hox/linutils/open_folder.h"

namespace fs = std::filesystem;

namespace Hox::LinuxCppUtil {

namespace {

using Made = OpenFolder::Made;

/// Gives the owner the rights to remove the content of the folder.
void giveRights(const std::string& folder) {
    fs::permissions(folder, fs::perms::owner_all, fs::perm_options::add);
    for (const auto& entry : OpenFolder(folder).list()) {
        if (entry.type == fs::file_type::directory) {
            giveRights(folder + '/' + entry.name);
        }
    }
}

void removeContent(const OpenFolder& folder) {
    for (const auto& entry : folder.list()) {
        if (entry.type == fs::file_type::directory) {
            removeContent(folder.below(entry.name));
            folder.removeEmptyFolder(entry.name);
        } else {
            folder.removeFile(entry.name);
        }
    }
}

void removeWhole(const std::string& path) {
    const auto type = fs::symlink_status(path).type();
    if (type == fs::file_type::directory) {
        removeContent(OpenFolder(path));
        OpenFolder().removeEmptyFolder(path);
    } else if (type != fs::file_type::not_found) {
        OpenFolder().removeFile(path);
    }
}

/// `where`: the path of the folder, relative to the one that the visit began with.
void readBelow(const OpenFolder& folder, const std::string& where, const std::string& name,
               const FileVisit& visit) {
    const auto entries = folder.list();
    for (const auto& entry : entries) {
        if (entry.name == name && entry.type != fs::file_type::directory &&
            (entry.type == fs::file_type::regular || folder.isRegularFile(name))) {
            visit(where, folder.readFile(name));
        }
    }
    for (const auto& entry : entries) {
        if (entry.type == fs::file_type::directory) {
            readBelow(folder.below(entry.name), where + '/' + entry.name, name, visit);
        }
    }
}

}  // namespace

bool makeFolders(const std::string& folder) {
    const OpenFolder working;
    Made made = working.makeFolder(folder);
    if (made == Made::NoParent) {
        const fs::path parent = fs::path(folder).parent_path();
        if (!parent.empty()) {
            makeFolders(parent.native());
        }
        made = working.makeFolder(folder);
        if (made == Made::NoParent) {
            throw fs::filesystem_error("cannot make folder", folder,
                                       std::make_error_code(std::errc::no_such_file_or_directory));
        }
    }
    return made == Made::Yes;
}

void writeFile(const std::string& file, std::string_view text) {
    OpenFolder().writeFile(file, text);
}

void renameFile(const std::string& from, const std::string& to) {
    OpenFolder().rename(from, to);
}

std::string readFile(const std::string& file) {
    return OpenFolder().readFile(file);
}

void readFilesNamed(const std::string& name, const std::string& folder, const FileVisit& visit) {
    readBelow(OpenFolder(folder), "", name, visit);
}

void removeFolder(const std::string& folder) {
    try {
        removeWhole(folder);
    } catch (const fs::filesystem_error& error) {
        if (error.code() != std::errc::permission_denied) {
            throw;
        }
        giveRights(folder);
        removeWhole(folder);
    }
}

}  // namespace Hox::LinuxCppUtil
