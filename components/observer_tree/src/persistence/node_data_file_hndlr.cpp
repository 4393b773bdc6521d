#include "hox/observer_tree/persistence/node_data_file_hndlr.h"

#include <google/protobuf/util/json_util.h>

#include <fstream>
#include <unordered_set>

#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"
#include "hox/observer_tree/utils.h"

namespace fs = std::filesystem;

namespace Hox::ObserverTree {

namespace {

constexpr const char* dataName = "data";
constexpr const char* temporaryName = "data~";

fs::path nodeDirectory(const fs::path& workingDir, const std::string& key) {
    return key.size() > 1 ? workingDir / key.substr(1) : workingDir;
}

std::string readFile(const fs::directory_entry& entry) {
    std::string content(entry.file_size(), '\0');
    std::ifstream file(entry.path(), std::ios::binary);
    file.read(content.data(), static_cast<std::streamsize>(content.size()));
    content.resize(static_cast<std::size_t>(file.gcount()));
    return content;
}

}  // namespace

/// Makes directories, each at most once in its life: the keys of a change set share most of theirs.
class NodeDataFileHndlr::DirectoryMaker {
public:
    void make(const fs::path& directory) {
        if (m_made.count(directory.native()) != 0) {
            return;
        }
        const fs::path parent = directory.parent_path();
        if (m_made.count(parent.native()) != 0) {
            fs::create_directory(directory);
        } else {
            fs::create_directories(directory);
            m_made.insert(parent.native());
        }
        m_made.insert(directory.native());
    }

    void forget() { m_made.clear(); }

private:
    std::unordered_set<std::string> m_made;
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
    const fs::path directory = nodeDirectory(workingDir, key);
    directories.make(directory);
    std::string json;
    // A value that cannot be converted leaves an empty file; the key is kept.
    static_cast<void>(google::protobuf::util::MessageToJsonString(data, &json));
    const fs::path temporary = directory / temporaryName;
    {
        std::ofstream file(temporary, std::ios::binary | std::ios::trunc);
        file << json;
    }
    fs::rename(temporary, directory / dataName);
}

void NodeDataFileHndlr::removeNodeData(const fs::path& workingDir, const std::string& key) {
    m_logger->log(Hox::Log::here(), spdlog::level::trace, "Removing node data - key: {}", key);
    fs::path directory = nodeDirectory(workingDir, key);
    fs::remove(directory / dataName);
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
            directories.forget();
        }
    }
}

ChangeSetType NodeDataFileHndlr::readNodeData(const fs::path& workingDir) {
    ChangeSetType result;
    const std::size_t prefixLength = workingDir.native().size();
    for (const auto& entry : fs::recursive_directory_iterator(workingDir)) {
        if (entry.path().filename() != dataName || !entry.is_regular_file()) {
            continue;
        }
        const std::string directory = entry.path().parent_path().native();
        std::string key = directory.substr(std::min(prefixLength, directory.size()));
        if (!key.empty() && key.front() != '/') {
            key.insert(key.begin(), '/');
        }
        const std::string json = readFile(entry);
        google::protobuf::Any packed;
        // A broken file yields an empty value: the key itself is kept.
        static_cast<void>(google::protobuf::util::JsonStringToMessage(json, &packed));
        addToChangeSet(result, key, std::make_shared<const DataTreeVal>(std::move(packed)), nullptr,
                       0);
    }
    return result;
}

}  // namespace Hox::ObserverTree
