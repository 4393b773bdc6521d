#pragma once

#include <string>
#include <utility>
#include <vector>

#include "hox/testing/datagram_receiver.h"

namespace Hox::Testing {

/// Replaces the journal: receives the records that the process sends to it, in the journal's own
/// protocol.
///
/// Needs a private /run (mountPrivateFolders), so that it never replaces the machine's journal.
class JournalReceiver {
public:
    /// The fields of one record, in the order of sending: name and value.
    using Record = std::vector<std::pair<std::string, std::string>>;

    /// Binds /run/systemd/journal/socket; throws std::system_error.
    JournalReceiver();

    /// All records so far, in order; never blocks. Throws std::runtime_error for a datagram that
    /// does not follow the protocol.
    std::vector<Record> records();

    /// The messages of all records so far, in order.
    std::vector<std::string> messages();

private:
    DatagramReceiver m_receiver;
};

}  // namespace Hox::Testing
