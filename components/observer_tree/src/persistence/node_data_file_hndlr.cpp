#include "hox/observer_tree/persistence/node_data_file_hndlr.h"

#include <string_view>
#include <utility>

#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"
#include "hox/cpputil/string/string_utils.h"
#include "hox/linutils/files.h"
#include "hox/observer_tree/persistence/value_text.h"
#include "hox/observer_tree/utils.h"

namespace fs = std::filesystem;

namespace Hox::ObserverTree {

namespace {

constexpr const char* dataName = "/data";
constexpr const char* temporaryName = "/data~";

std::string nodeDirectory(const fs::path& workingDir, const std::string& key) {
    std::string directory = workingDir.native();
    if (key.size() > 1) {
        const bool needsSeparator = !directory.empty() && directory.back() != '/';
        directory.append(key, needsSeparator ? 0 : 1);
    }
    return directory;
}

}  // namespace

NodeDataFileHndlr::NodeDataFileHndlr()
    : m_logger(Hox::Log::getLogsystem()->getLogger("NodeDataFileHndlr")) {}

void NodeDataFileHndlr::saveNodeData(const fs::path& workingDir, const std::string& key,
                                     const google::protobuf::Any& data) {
    if (m_logger->should_log(spdlog::level::trace)) {
        m_logger->log(Hox::Log::here(), spdlog::level::trace,
                      "Saving node data - workingDir {} key: {}, data {}", workingDir.string(), key,
                      data.DebugString());
    }
    const std::string directory = nodeDirectory(workingDir, key);
    const std::string temporary = directory + temporaryName;
    const std::string text = textOfValue(data);
    Hox::LinuxCppUtil::makeFolders(directory);
    Hox::LinuxCppUtil::writeFile(temporary, text);
    Hox::LinuxCppUtil::renameFile(temporary, directory + dataName);
}

void NodeDataFileHndlr::removeNodeData(const fs::path& workingDir, const std::string& key) {
    m_logger->log(Hox::Log::here(), spdlog::level::trace, "Removing node data - key: {}", key);
    fs::path directory = nodeDirectory(workingDir, key);
    fs::remove(directory.native() + dataName);
    while (fs::exists(directory) && fs::is_empty(directory)) {
        fs::remove(directory);
        directory = directory.parent_path();
    }
}

void NodeDataFileHndlr::saveChangeSet(const ChangeSetType& changes, const fs::path& workingDir) {
    for (const auto& [key, keyChanges] : changes) {
        const auto& current = keyChanges.at(0).current;
        if (current) {
            saveNodeData(workingDir, key, *current->toAny());
        } else {
            removeNodeData(workingDir, key);
        }
    }
}

ChangeSetType NodeDataFileHndlr::readNodeData(const fs::path& workingDir) {
    ChangeSetType result;
    const std::size_t prefixLength = workingDir.native().size();
    Hox::LinuxCppUtil::forEachEntry(workingDir, [&](const fs::directory_entry& entry) {
        const std::string& file = entry.path().native();
        if (!Hox::CppUtil::str_ends_with(dataName, file) || !entry.is_regular_file()) {
            return;
        }
        std::string key = file.substr(0, file.size() - std::string_view(dataName).size());
        key.erase(0, prefixLength);
        if (!key.empty() && key.front() != '/') {
            key.insert(key.begin(), '/');
        }
        google::protobuf::Any packed;
        if (!valueFromText(Hox::LinuxCppUtil::readFile(file), packed)) {
            // The key itself is kept.
            m_logger->log(Hox::Log::here(), spdlog::level::warn,
                          "Loading an empty value, as there is no JSON of a known type in {}",
                          file);
        }
        addToChangeSet(result, key, std::make_shared<const DataTreeVal>(std::move(packed)), nullptr,
                       0);
    });
    return result;
}

}  // namespace Hox::ObserverTree
