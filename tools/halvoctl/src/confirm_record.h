#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "confirmation.pb.h"
#include "hox/linutils/raii_filedescriptors.h"
#include "surroundings.h"
#include "terminal_ignored.h"

namespace Hox::Ctl {

/// The record of a change that reverts unless it is confirmed: a folder with what is needed for
/// both. As long as this object exists no other process works on the record, and this one is
/// neither ended by the loss of its terminal nor stopped by Ctrl-Z.
///
/// What is kept is on the disk when the call returns. The record counts from the moment at which
/// its content is kept; without content it is removed when this object is destroyed.
class ConfirmRecord {
public:
    /// A new record without content, with an id that no other one has. Removes what killed
    /// processes have left of records without content. Throws CtlError if there is no place for it.
    static std::unique_ptr<ConfirmRecord> create(const Surroundings& surroundings);

    /// An existing record, null if there is none (any more). Waits until nobody else works on it.
    /// Throws CtlError with Unreachable after this time, if it cannot be read, and if the user ends
    /// the wait.
    static std::unique_ptr<ConfirmRecord> open(const Surroundings& surroundings,
                                               const std::string& id,
                                               std::chrono::milliseconds time);

    /// The content of the record in this folder, nothing if there is none. Throws CtlError if it
    /// cannot be read.
    static std::optional<Confirmation> read(const std::string& folder);

    ~ConfirmRecord();
    ConfirmRecord(const ConfirmRecord&) = delete;
    ConfirmRecord& operator=(const ConfirmRecord&) = delete;

    /// What names the record to the user.
    std::string id() const;

    /// Where the record is.
    const std::string& folder() const { return m_folder; }

    /// The content that was kept last.
    const Confirmation& content() const { return m_content; }

    /// Keeps the content, with the id of the record. Throws CtlError; the former one remains then.
    void keep(Confirmation content);

    /// The package of before the change. Throws CtlError if it cannot be read.
    std::string formerPackage() const;

    /// The package of after the change. Throws CtlError if it cannot be read.
    std::string newPackage() const;

    /// Keeps a package. Throws CtlError; a former one remains then.
    ///@{
    void keepFormerPackage(const std::string& bytes) const;
    void keepNewPackage(const std::string& bytes) const;
    ///@}

    /// Removes the record. Throws CtlError if that fails; then it still counts.
    void remove();

private:
    ConfirmRecord(std::string folder, LinuxCppUtil::OwnedFileDescriptor lock);

    std::string m_folder;
    LinuxCppUtil::OwnedFileDescriptor m_lock;
    TerminalIgnored m_terminalIgnored;
    Confirmation m_content;
    bool m_isKept = false;
};

}  // namespace Hox::Ctl
