#pragma once

#include <google/protobuf/repeated_ptr_field.h>
#include <google/protobuf/timestamp.pb.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <string_view>
#include <unordered_map>

#include "hox/observer_tree/data_tree.h"
#include "state_monitoring.pb.h"
#include "type_filter.h"

namespace Hox::Capability::StateMonitoring {

/// The notifications in a data tree: the latest of every origin and the last ones of all origins.
///
/// Keeps the positions of its keys in the tree and the numbers of bad latest notifications, so that
/// no query needs a look-up. An object uses one tree for its lifetime, and it alone writes and
/// removes these keys. All functions run under the data lock of that tree.
class NotificationStore {
public:
    using DataTree = Hox::ObserverTree::DataTree;
    using Notifications = google::protobuf::RepeatedPtrField<Api::StoredNotification>;

    /// The archive holds at most archiveSize notifications. Asserts that this is above 0.
    explicit NotificationStore(int32_t archiveSize);

    /// Writes the notification as the latest of its origin and as the newest of the archive, whose
    /// oldest one is removed if it is full. Throws PathError, with nothing changed, if service,
    /// type and source do not form a valid key.
    void store(std::unique_ptr<Api::StateNotification> notification, DataTree& tree);

    /// The index of the next notification; equals the number of stored notifications.
    int32_t nextIndex() const { return m_nextIndex; }

    /// Whether any of the latest notifications is an ERROR.
    bool hasErrors() const { return m_latestErrors > 0; }

    /// Whether any of the latest notifications is a WARN.
    bool hasWarnings() const { return m_latestWarnings > 0; }

    /// Adds archived notifications that the filter accepts, newest first: with a negative index the
    /// last -index ones, otherwise those with this index and above. Throws what the filter throws.
    void addByIndex(int32_t index, TypeFilter& filter, Notifications& found) const;

    /// Adds the archived notifications that the filter accepts and that are not earlier than
    /// `from`, in order of arrival. Throws what the filter throws.
    void addByTime(const google::protobuf::Timestamp& from, TypeFilter& filter,
                   Notifications& found) const;

    /// Adds the latest notification of every origin, in the order of their keys.
    static void addLatest(const DataTree& tree, Notifications& found);

private:
    /// A latest key of the tree and the severity of its notification.
    struct LatestEntry {
        DataTree::iterator position;
        Api::StateSeverity severity = Api::StateSeverity::OK;
    };

    /// An archive key of the tree and its notification.
    struct ArchiveEntry {
        DataTree::iterator position;
        const Api::StoredNotification* notification = nullptr;
    };

    void archive(Hox::ObserverTree::DataTreeValPtr value, DataTree& tree);
    void countSeverity(Api::StateSeverity severity, int32_t difference);

    int32_t m_nextIndex = 0;
    int32_t m_archiveSize;
    /// The latest keys, which are never removed, indexed by their text in the tree.
    std::unordered_map<std::string_view, LatestEntry> m_latest;
    /// The archive keys, oldest first.
    std::deque<ArchiveEntry> m_archive;
    int32_t m_latestErrors = 0;
    int32_t m_latestWarnings = 0;
};

}  // namespace Hox::Capability::StateMonitoring
