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

/// The notifications that a data tree holds: the latest of every origin and the last ones of all.
///
/// Knows where in the tree its keys are, and how many of the latest notifications are bad, so that
/// no question needs a look-up. One tree for the life of an object, which alone writes and removes
/// these keys. All functions run under the data lock of that tree.
class NotificationStore {
public:
    using DataTree = Hox::ObserverTree::DataTree;
    using Notifications = google::protobuf::RepeatedPtrField<Api::StoredNotification>;

    /// The archive holds at most archiveSize notifications. Asserts that this is above 0.
    explicit NotificationStore(int32_t archiveSize);

    /// Writes the notification as the latest of its origin and as the newest of the archive, whose
    /// oldest one leaves where it is full. Throws PathError, with nothing changed, where service,
    /// type and source make no key.
    void store(std::unique_ptr<Api::StateNotification> notification, DataTree& tree);

    /// The index of the next notification: as many have been stored.
    int32_t nextIndex() const { return m_nextIndex; }

    /// Whether any of the latest notifications is an ERROR.
    bool hasErrors() const { return m_latestErrors > 0; }

    /// Whether any of the latest notifications is a WARN.
    bool hasWarnings() const { return m_latestWarnings > 0; }

    /// Adds archived notifications that the filter accepts, newest first: from a negative index the
    /// last -index ones, else those of this index and above. Throws as the filter does.
    void addByIndex(int32_t index, TypeFilter& filter, Notifications& found) const;

    /// Adds the archived notifications that the filter accepts and that are not earlier, in order
    /// of arrival. Throws as the filter does.
    void addByTime(const google::protobuf::Timestamp& from, TypeFilter& filter,
                   Notifications& found) const;

    /// Adds the latest notification of every origin, in the order of their keys.
    static void addLatest(const DataTree& tree, Notifications& found);

private:
    /// A latest key of the tree and the severity of what it holds.
    struct LatestEntry {
        DataTree::iterator position;
        Api::StateSeverity severity = Api::StateSeverity::OK;
    };

    /// An archive key of the tree and the notification that it holds.
    struct ArchiveEntry {
        DataTree::iterator position;
        const Api::StoredNotification* notification = nullptr;
    };

    void archive(Hox::ObserverTree::DataTreeValPtr value, DataTree& tree);
    void countSeverity(Api::StateSeverity severity, int32_t difference);

    int32_t m_nextIndex = 0;
    int32_t m_archiveSize;
    /// The latest keys, which are never removed, by their text in the tree.
    std::unordered_map<std::string_view, LatestEntry> m_latest;
    /// The archive keys, oldest first.
    std::deque<ArchiveEntry> m_archive;
    int32_t m_latestErrors = 0;
    int32_t m_latestWarnings = 0;
};

}  // namespace Hox::Capability::StateMonitoring
