#pragma once

#include <spdlog/logger.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "hox/cpputil/log/logger_name.h"
#include "hox/linutils/raii_filedescriptors.h"
#include "hox/observer_tree/data_tree.h"
#include "hox/observer_tree/persistence/node_data_file_hndlr.h"
#include "hox/observer_tree/status.h"
#include "scratch_folder.h"

namespace Hox::Capability::Configuration {

/// The saved copy of the configuration: a folder whose values are never edited, but replaced by
/// another folder in one step.
///
/// The caller serialises. Unless documented otherwise, a function throws
/// std::filesystem::filesystem_error, with the path and the system's reason, on an error of the
/// file system; the saved copy is unchanged then.
class SavedCopy {
public:
    /// Takes the lock that keeps other services out of the folder, for the lifetime of the object.
    /// Creates the parent folder of the saved copy, but not the saved copy itself. Throws
    /// InitializationError, which names the folder, if another service holds the lock.
    explicit SavedCopy(std::filesystem::path folder);

    /// The path of the saved copy.
    const std::filesystem::path& folder() const { return m_confPath; }

    /// An empty folder beside the saved copy, for the next saved copy.
    std::unique_ptr<ScratchFolder> makeScratch() const;

    /// Unpacks an untrusted package. Returns INTERNAL, and logs the same text, if the package is
    /// invalid or cannot be written.
    Hox::ObserverTree::Status unpack(const std::string& package,
                                     const ScratchFolder& scratch) const;

    /// Decides whether the unpacked content may be put in force, and reads it. Returns
    /// INVALID_ARGUMENT for the package of another machine. Also throws for content that cannot be
    /// loaded or cannot be saved again: PathError, InvalidArgumentError, or std::logic_error for a
    /// part number that is not a number.
    Hox::ObserverTree::Status examine(const ScratchFolder& scratch,
                                      Hox::ObserverTree::ChangeSetType& content) const;

    /// Flushes the folder to disk, makes it the saved copy and removes the old one. Throws nothing
    /// after the exchange; ends the process if the exchange fails.
    void putInForce(std::unique_ptr<ScratchFolder> scratch) const;

    /// All values of the saved copy, ready to be loaded: see mend(). Also throws what mend()
    /// throws.
    Hox::ObserverTree::ChangeSetType read() const;

    /// Prepares saved values for loading. A slice whose state id cannot be read gets a new one,
    /// with a warning, because nobody could update it otherwise. Logs a warning for keys that no
    /// service could write today. Throws PathError for a key that the tree does not accept.
    void mend(Hox::ObserverTree::ChangeSetType& content) const;

    /// The saved copy as a package, with the identity of this machine, which is written beside its
    /// values. Throws what packing throws.
    std::string pack() const;

private:
    bool confIsCompatible(const std::filesystem::path& dir) const;

    std::function<std::string()> _HALVOMACRO_loggerName = [] {
        return Hox::Log::loggerName(__PRETTY_FUNCTION__, __FILE__);
    };
    std::shared_ptr<spdlog::logger> m_logger;
    std::filesystem::path m_confPath;
    Hox::LinuxCppUtil::OwnedFileDescriptor m_lock;
    mutable Hox::ObserverTree::NodeDataFileHndlr m_files;
};

}  // namespace Hox::Capability::Configuration
