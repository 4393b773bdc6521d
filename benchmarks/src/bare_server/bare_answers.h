#pragma once

#include <google/protobuf/any.pb.h>

#include <string>
#include <vector>

#include "common/sample_notifications.h"
#include "obstree.pb.h"

namespace Hox::Benchmarks {

/// Builds messages of the service's size and shape, each afresh, from constant parts.
class BareAnswers {
public:
    /// `snapshotKeys` is how many keys the snapshot of `snapshotPattern` holds.
    explicit BareAnswers(int snapshotKeys);

    /// A full archive.
    void fill(Api::GetStateNotificationsResp& response) const;

    /// The first element of a stream with this pattern.
    ObserverTree::ObsTreeObserveChangeSet snapshot(const std::string& keyPattern) const;

    /// The element for the report with this index, its aged-out one included once the archive of
    /// the service would be full.
    ObserverTree::ObsTreeObserveChangeSet change(const Api::StateNotification& notification,
                                                 int index) const;

private:
    struct KeyAndValue {
        std::string key;
        google::protobuf::Any value;
    };

    std::vector<Api::StoredNotification> m_archive;
    std::vector<KeyAndValue> m_snapshot;
    google::protobuf::Any m_formerReport;
};

}  // namespace Hox::Benchmarks
