#include "hox/observer_tree/persistence/node_data_file_hndlr.h"

#include <spdlog/logger.h>

#include <optional>
#include <utility>
#include <vector>

#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"
#include "hox/linutils/files.h"
#include "hox/linutils/open_folder.h"
#include "hox/observer_tree/persistence/value_text.h"
#include "hox/observer_tree/utils.h"

namespace fs = std::filesystem;

namespace Hox::ObserverTree {

namespace {

constexpr const char* dataName = "data";
constexpr const char* temporaryName = "data~";

std::string nodeDirectory(const fs::path& workingDir, const std::string& key) {
    std::string directory = workingDir.native();
    if (key.size() > 1) {
        const bool needsSeparator = !directory.empty() && directory.back() != '/';
        directory.append(key, needsSeparator ? 0 : 1);
    }
    return directory;
}

/// Writes values one after the other. The parent of the last one stays open, because most keys have
/// the same parent as their predecessor. It must not be removed meanwhile.
class ValueWriter {
public:
    explicit ValueWriter(spdlog::logger& logger) : m_logger(logger) {}

    void write(const fs::path& workingDir, const std::string& key,
               const google::protobuf::Any& data) {
        if (m_logger.should_log(spdlog::level::trace)) {
            m_logger.log(Hox::Log::here(), spdlog::level::trace,
                         "Saving node data - workingDir {} key: {}, data {}", workingDir.string(),
                         key, data.DebugString());
        }
        const std::string text = textOfValue(data);
        const auto slash = key.rfind('/');
        const std::string name = key.size() > 1 ? key.substr(slash + 1) : ".";
        open(nodeDirectory(workingDir, key.substr(0, slash)));
        m_parent.makeFolder(name);
        const std::string temporary = name + '/' + temporaryName;
        m_parent.writeFile(temporary, text);
        m_parent.rename(temporary, name + '/' + dataName);
    }

private:
    void open(const std::string& directory) {
        if (!directory.empty() && m_parent.path() != directory) {
            Hox::LinuxCppUtil::makeFolders(directory);
            m_parent = Hox::LinuxCppUtil::OpenFolder(directory);
        }
    }

    spdlog::logger& m_logger;
    Hox::LinuxCppUtil::OpenFolder m_parent;
};

}  // namespace

NodeDataFileHndlr::NodeDataFileHndlr()
    : m_logger(Hox::Log::getLogsystem()->getLogger("NodeDataFileHndlr")) {}

void NodeDataFileHndlr::saveNodeData(const fs::path& workingDir, const std::string& key,
                                     const google::protobuf::Any& data) {
    ValueWriter(*m_logger).write(workingDir, key, data);
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
    std::optional<ValueWriter> writer;
    for (const auto& [key, keyChanges] : changes) {
        const auto& current = keyChanges.at(0).current;
        if (current) {
            if (!writer) {
                writer.emplace(*m_logger);
            }
            writer->write(workingDir, key, *current->toAny());
        } else {
            writer.reset();  // it may have open what is removed now
            removeNodeData(workingDir, key);
        }
    }
}

ChangeSetType NodeDataFileHndlr::readNodeData(const fs::path& workingDir) {
    ChangeSetType result;
    const auto add = [&](const std::string& where, const std::string& text) {
        google::protobuf::Any packed;
        if (!valueFromText(text, packed)) {
            // The key itself is kept.
            m_logger->log(Hox::Log::here(), spdlog::level::warn,
                          "Loading an empty value, as there is no JSON of a known type in {}",
                          nodeDirectory(workingDir, where) + '/' + dataName);
        }
        std::vector<ChangeSetMapVal> changes(1);
        changes.front().current = std::make_shared<const DataTreeVal>(std::move(packed));
        result.emplace_hint(result.end(), where, std::move(changes));
    };
    Hox::LinuxCppUtil::readFilesNamed(dataName, workingDir, add);
    return result;
}

}  // namespace Hox::ObserverTree
