#pragma once

#include <google/protobuf/any.pb.h>

#include <cstddef>
#include <string>
#include <vector>

#include "common/sample_notifications.h"
#include "obstree.pb.h"

namespace Hox::Benchmarks {

/// Builds messages with the size and shape of the service's messages, each anew, from constant
/// parts.
class BareAnswers {
public:
    /// `snapshotKeys` is the number of keys in the snapshot of `snapshotPattern` and in a slice.
    explicit BareAnswers(int snapshotKeys);

    /// A full archive.
    void fill(Api::GetStateNotificationsResp& response) const;

    /// The first element of a stream with this pattern.
    ObserverTree::ObsTreeObserveChangeSet snapshot(const std::string& keyPattern) const;

    /// The first element of a stream over a slice: all of its settings and its state id.
    ObserverTree::ObsTreeObserveChangeSet slice() const;

    /// The element for the report with this index, including the report that leaves the archive
    /// once the archive of the service would be full.
    ObserverTree::ObsTreeObserveChangeSet change(const Api::StateNotification& notification,
                                                 int index) const;

private:
    struct KeyAndValue {
        std::string key;
        google::protobuf::Any value;
    };

    static ObserverTree::ObsTreeObserveChangeSet changeSet(const std::vector<KeyAndValue>& values,
                                                           std::size_t count);

    std::vector<Api::StoredNotification> m_archive;
    std::vector<KeyAndValue> m_snapshot;
    std::vector<KeyAndValue> m_slice;
    google::protobuf::Any m_formerReport;
};

}  // namespace Hox::Benchmarks
