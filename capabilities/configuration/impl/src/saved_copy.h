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
/// those of another folder in one step.
///
/// The caller serialises. Unless something else is said, a function throws
/// std::filesystem::filesystem_error, with the path and the system's reason, for what the file
/// system refuses; the saved copy is as it was then.
class SavedCopy {
public:
    /// Takes the lock that keeps other services away from the folder, for as long as the object
    /// lives. Makes the folder that the saved copy is to be in, not itself. Throws
    /// InitializationError, which names the folder, where another service has the lock.
    explicit SavedCopy(std::filesystem::path folder);

    /// Where the saved copy is.
    const std::filesystem::path& folder() const { return m_folder; }

    /// An empty folder beside the saved copy, for the next one.
    std::unique_ptr<ScratchFolder> makeScratch() const;

    /// Unpacks a package, which nobody vouches for. Answers INTERNAL, and logs the same text, for
    /// anything that is wrong with it or cannot be written.
    Hox::ObserverTree::Status unpack(const std::string& package,
                                     const ScratchFolder& scratch) const;

    /// Decides whether what has been unpacked may be put in force, and reads it. Answers
    /// INVALID_ARGUMENT for the package of another machine. Throws also for what could not be
    /// loaded or not be saved again: PathError, InvalidArgumentError, or std::logic_error for a
    /// part number that is none.
    Hox::ObserverTree::Status examine(const ScratchFolder& scratch,
                                      Hox::ObserverTree::ChangeSetType& content) const;

    /// Makes the folder the saved copy, once it is on the disk, and removes the old one. Nothing is
    /// thrown once they have changed places; ends the process where they cannot.
    void putInForce(std::unique_ptr<ScratchFolder> scratch) const;

    /// All values of the saved copy, fit to be loaded: see mend(). Also throws what mend() throws.
    Hox::ObserverTree::ChangeSetType read() const;

    /// Makes saved values fit to be loaded: gives slices whose state id cannot be read a fresh one,
    /// with a warning, as nobody could update them otherwise; and warns of keys that no service
    /// could write today. Throws PathError for a key that the tree does not take.
    void mend(Hox::ObserverTree::ChangeSetType& content) const;

    /// The saved copy as a package, with the identity of this machine, which is put beside its
    /// values. Throws what packing throws.
    std::string pack() const;

private:
    bool isForThisMachine(const std::filesystem::path& dir) const;

    std::function<std::string()> _HALVOMACRO_loggerName = [] {
        return Hox::Log::loggerName(__PRETTY_FUNCTION__, __FILE__);
    };
    std::shared_ptr<spdlog::logger> m_logger;
    std::filesystem::path m_folder;
    Hox::LinuxCppUtil::OwnedFileDescriptor m_lock;
    mutable Hox::ObserverTree::NodeDataFileHndlr m_files;
};

}  // namespace Hox::Capability::Configuration
