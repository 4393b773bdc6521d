#pragma once

#include <string>

#include "confirm_record.h"
#include "connection.h"

namespace Hox::Ctl {

/// Reverts the change of a record, or finds out that it should not.
class Reverter {
public:
    /// What has become of a change.
    struct Finding {
        bool isReverted = false;  ///< Everything is as it was before.
        std::string objection;    ///< Why reverting would lose something; empty if it would not.
    };

    /// The record and the connection must outlive this object.
    Reverter(const ConfirmRecord& record, const Connection& connection)
        : m_record(record), m_connection(connection) {}

    /// Asks the service. Throws CtlError if it cannot be found out.
    Finding examine() const;

    /// Reverts the change, whatever has become of it. Throws CtlError if that fails; then it may be
    /// tried again.
    void revert() const;

private:
    Finding examineImport() const;
    Finding examineGuard() const;

    const ConfirmRecord& m_record;
    const Connection& m_connection;
};

/// The change in a text, as in "import 7f3a".
std::string changeText(const Confirmation& content);

}  // namespace Hox::Ctl
