#pragma once

#include <google/protobuf/any.pb.h>
#include <spdlog/fwd.h>

#include <filesystem>
#include <memory>
#include <string>

#include "hox/observer_tree/data_tree.h"

namespace Hox::ObserverTree {

/// Keeps values on disk: key /a/b under the working directory W is in the file W/a/b/data, as the
/// JSON form of a packed message. A value that JSON cannot represent exactly, such as one of a type
/// that this program does not know, is stored as {"@type": ..., "@bytes": <base64>}.
///
/// No state and no lock; the caller serialises. A failed read or write throws
/// std::filesystem::filesystem_error with the path and the system's reason. A crash of the process
/// leaves the old file or the new one, never a mixture. Files and directories are readable by their
/// owner and group only, whatever the umask.
class NodeDataFileHndlr {
public:
    /// Touches no file.
    NodeDataFileHndlr();
    virtual ~NodeDataFileHndlr() = default;
    NodeDataFileHndlr(const NodeDataFileHndlr&) = delete;
    NodeDataFileHndlr(NodeDataFileHndlr&&) = delete;
    NodeDataFileHndlr& operator=(const NodeDataFileHndlr&) = delete;
    NodeDataFileHndlr& operator=(NodeDataFileHndlr&&) = delete;

    /// Writes one value and creates missing directories. Throws InvalidArgumentError for a value
    /// whose type URL is not UTF-8.
    void saveNodeData(const std::filesystem::path& workingDir, const std::string& key,
                      const google::protobuf::Any& data);

    /// Removes one value and every parent directory that has become empty, up to the first one that
    /// is not empty. This may also remove the working directory and directories above it.
    void removeNodeData(const std::filesystem::path& workingDir, const std::string& key);

    /// Writes or removes the first change of each key, in key order. Throws std::out_of_range for a
    /// key without changes.
    void saveChangeSet(const ChangeSetType& changes, const std::filesystem::path& workingDir);

    /// Loads every value below the working directory. A file that can be read but not parsed yields
    /// an empty packed message and a warning that names it.
    ChangeSetType readNodeData(const std::filesystem::path& workingDir);

private:
    std::shared_ptr<spdlog::logger> m_logger;
};

}  // namespace Hox::ObserverTree
