#include "hox/observer_tree/persistence/node_data_file_hndlr.h"

#include <google/protobuf/util/json_util.h>

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"
#include "hox/cpputil/string/string_utils.h"
#include "hox/observer_tree/utils.h"
#include "persistence/node_file.h"

namespace fs = std::filesystem;

namespace Hox::ObserverTree {

namespace {

constexpr const char* dataName = "/data";
constexpr const char* temporaryName = "/data~";
constexpr mode_t directoryMode = 0777;

std::string nodeDirectory(const fs::path& workingDir, const std::string& key) {
    std::string directory = workingDir.native();
    if (key.size() > 1) {
        const bool needsSeparator = !directory.empty() && directory.back() != '/';
        directory.append(key, needsSeparator ? 0 : 1);
    }
    return directory;
}

std::string fileIn(const std::string& directory, std::string_view name) {
    std::string file;
    file.reserve(directory.size() + name.size());
    return file.append(directory).append(name);
}

/// Calls `visit` with everything below the folder but the folders. It has one folder open at a
/// time: a recursive iterator has one per level, and a key may have more levels than a process has
/// descriptors.
template <typename Visit>
void forEachFile(const fs::path& folder, const Visit& visit) {
    std::vector<std::string> pending{folder.native()};
    while (!pending.empty()) {
        const fs::path current = std::move(pending.back());
        pending.pop_back();
        for (const auto& entry : fs::directory_iterator(current)) {
            // A link is not followed, and asking where it leads might fail.
            if (!entry.is_symlink() && entry.is_directory()) {
                pending.push_back(entry.path().native());
            } else {
                visit(entry);
            }
        }
    }
}

void rename(const std::string& from, const std::string& to) {
    if (::rename(from.c_str(), to.c_str()) != 0) {
        throw fs::filesystem_error("cannot rename", from, to,
                                   std::error_code(errno, std::generic_category()));
    }
}

}  // namespace

/// Makes directories with as few questions to the file system as it can: below a directory that it
/// has made itself it expects nothing to be there.
class NodeDataFileHndlr::DirectoryMaker {
public:
    /// Throws std::filesystem::filesystem_error.
    void make(const std::string& directory) {
        if (!isExpectedMissing(directory)) {
            fs::path highest = highestMissing(directory);
            if (createDirectories(directory)) {
                m_made = highest.native() + '/';
            }
        } else if (::mkdir(directory.c_str(), directoryMode) != 0) {
            createDirectories(directory);
        }
    }

    /// Whether the directory lies below one that this object has made. A guess: it may be there.
    bool isExpectedMissing(const std::string& directory) const {
        return !m_made.empty() && Hox::CppUtil::str_starts_with(m_made, directory);
    }

private:
    /// Whether there was anything to make. The standard library gives up where more than a thousand
    /// levels are missing, and a key may have more.
    static bool createDirectories(const std::string& directory) {
        constexpr std::size_t levelsAtOnce = 500;
        bool isMade = false;
        std::size_t level = 0;
        for (std::size_t slash = directory.find('/', 1); slash != std::string::npos;
             slash = directory.find('/', slash + 1)) {
            if (++level % levelsAtOnce == 0) {
                isMade = fs::create_directories(directory.substr(0, slash)) || isMade;
            }
        }
        return fs::create_directories(directory) || isMade;
    }

    static fs::path highestMissing(fs::path directory) {
        std::error_code ignored;
        while (directory.has_parent_path() && !fs::exists(directory.parent_path(), ignored)) {
            directory = directory.parent_path();
        }
        return directory;
    }

    std::string m_made;  // the highest directory made last, with a slash at its end
};

NodeDataFileHndlr::NodeDataFileHndlr()
    : m_logger(Hox::Log::getLogsystem()->getLogger("NodeDataFileHndlr")) {}

void NodeDataFileHndlr::saveNodeData(const fs::path& workingDir, const std::string& key,
                                     const google::protobuf::Any& data) {
    DirectoryMaker directories;
    save(workingDir, key, data, directories);
}

void NodeDataFileHndlr::save(const fs::path& workingDir, const std::string& key,
                             const google::protobuf::Any& data, DirectoryMaker& directories) {
    if (m_logger->should_log(spdlog::level::trace)) {
        m_logger->log(Hox::Log::here(), spdlog::level::trace,
                      "Saving node data - workingDir {} key: {}, data {}", workingDir.string(), key,
                      data.DebugString());
    }
    const std::string directory = nodeDirectory(workingDir, key);
    const std::string temporary = fileIn(directory, temporaryName);
    std::string json;
    // A value that cannot be converted leaves an empty file; the key is kept.
    static_cast<void>(google::protobuf::util::MessageToJsonString(data, &json));
    writeTemporary(directory, temporary, json, directories);
    rename(temporary, fileIn(directory, dataName));
}

void NodeDataFileHndlr::writeTemporary(const std::string& directory, const std::string& temporary,
                                       const std::string& text, DirectoryMaker& directories) {
    if (!directories.isExpectedMissing(directory)) {
        const auto file = NodeFile::create(temporary);
        if (file.isOpen()) {
            file.write(text);
            return;
        }
    }
    directories.make(directory);
    // A file that cannot be opened shows when it is renamed.
    NodeFile::create(temporary).write(text);
}

void NodeDataFileHndlr::removeNodeData(const fs::path& workingDir, const std::string& key) {
    m_logger->log(Hox::Log::here(), spdlog::level::trace, "Removing node data - key: {}", key);
    fs::path directory = nodeDirectory(workingDir, key);
    fs::remove(fileIn(directory.native(), dataName));
    while (fs::exists(directory) && fs::is_empty(directory)) {
        fs::remove(directory);
        directory = directory.parent_path();
    }
}

void NodeDataFileHndlr::saveChangeSet(const ChangeSetType& changes, const fs::path& workingDir) {
    DirectoryMaker directories;
    for (const auto& [key, keyChanges] : changes) {
        const auto& current = keyChanges.at(0).current;
        if (current) {
            save(workingDir, key, *current->toAny(), directories);
        } else {
            removeNodeData(workingDir, key);
        }
    }
}

ChangeSetType NodeDataFileHndlr::readNodeData(const fs::path& workingDir) {
    ChangeSetType result;
    const std::size_t prefixLength = workingDir.native().size();
    forEachFile(workingDir, [&result, prefixLength](const fs::directory_entry& entry) {
        const std::string& file = entry.path().native();
        if (!Hox::CppUtil::str_ends_with(dataName, file) || !entry.is_regular_file()) {
            return;
        }
        std::string key = file.substr(0, file.size() - std::string_view(dataName).size());
        key.erase(0, prefixLength);
        if (!key.empty() && key.front() != '/') {
            key.insert(key.begin(), '/');
        }
        const std::string json = NodeFile::open(file).readAll();
        google::protobuf::Any packed;
        // A broken file yields an empty value: the key itself is kept.
        static_cast<void>(google::protobuf::util::JsonStringToMessage(json, &packed));
        addToChangeSet(result, key, std::make_shared<const DataTreeVal>(std::move(packed)), nullptr,
                       0);
    });
    return result;
}

}  // namespace Hox::ObserverTree
