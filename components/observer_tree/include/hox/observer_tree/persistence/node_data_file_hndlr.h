#pragma once

#include <google/protobuf/any.pb.h>
#include <spdlog/logger.h>

#include <filesystem>
#include <memory>
#include <string>

#include "hox/observer_tree/data_tree.h"

namespace Hox::ObserverTree {

/// Keeps values on disk: key /a/b under the working directory W lies in the file W/a/b/data, as the
/// JSON form of a packed message.
///
/// Without state and lock; the caller serialises. File system errors pass to the caller as
/// std::filesystem::filesystem_error; a failed write of a file's content is not detected. A crash
/// leaves the old file or the new one, never a mixture.
class NodeDataFileHndlr {
public:
    /// Touches no file.
    NodeDataFileHndlr();
    virtual ~NodeDataFileHndlr() = default;
    NodeDataFileHndlr(const NodeDataFileHndlr&) = delete;
    NodeDataFileHndlr(NodeDataFileHndlr&&) = delete;
    NodeDataFileHndlr& operator=(const NodeDataFileHndlr&) = delete;
    NodeDataFileHndlr& operator=(NodeDataFileHndlr&&) = delete;

    /// Writes one value, making directories as needed.
    void saveNodeData(const std::filesystem::path& workingDir, const std::string& key,
                      const google::protobuf::Any& data);

    /// Removes one value, and every directory above it that has become empty, up to the first one
    /// that holds something. That may take the working directory along and what is above it.
    void removeNodeData(const std::filesystem::path& workingDir, const std::string& key);

    /// Writes or removes the first change of each key, in key order. Throws std::out_of_range for a
    /// key without changes.
    void saveChangeSet(const ChangeSetType& changes, const std::filesystem::path& workingDir);

    /// Loads every value below the working directory. A file that cannot be parsed yields an empty
    /// packed message.
    ChangeSetType readNodeData(const std::filesystem::path& workingDir);

private:
    class DirectoryMaker;

    void save(const std::filesystem::path& workingDir, const std::string& key,
              const google::protobuf::Any& data, DirectoryMaker& directories);
    static void writeTemporary(const std::string& directory, const std::string& temporary,
                               const std::string& text, DirectoryMaker& directories);

    std::shared_ptr<spdlog::logger> m_logger;
};

}  // namespace Hox::ObserverTree
