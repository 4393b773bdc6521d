#include "bare_server/bare_answers.h"

#include <algorithm>
#include <cstddef>

#include "common/sample_configuration.h"

namespace Hox::Benchmarks {

namespace {

Api::StoredNotification stored(const Api::StateNotification& notification, int index) {
    Api::StoredNotification result;
    result.set_index(index);
    *result.mutable_statenotification() = notification;
    result.mutable_previousstateseverity()->set_stateseverity(Api::OK);
    return result;
}

}  // namespace

BareAnswers::BareAnswers(int snapshotKeys) {
    for (int i = 0; i < archiveSize; ++i) {
        m_archive.push_back(stored(sampleNotification(i % 100), i));
    }
    for (int i = 0; i < std::max(snapshotKeys, 1); ++i) {
        const auto notification = sampleNotification(i);
        m_snapshot.emplace_back().key = latestKey(notification);
        m_snapshot.back().value.PackFrom(stored(notification, i));
    }
    m_formerReport.PackFrom(m_archive.back());
    for (int i = 0; i < snapshotKeys; ++i) {
        m_slice.push_back({settingKey(i), settingValue(i)});
    }
    m_slice.push_back({"/__csid", settingValue(0)});
}

void BareAnswers::fill(Api::GetStateNotificationsResp& response) const {
    auto& list = *response.mutable_statelist();
    list.Reserve(static_cast<int>(m_archive.size()));
    for (const auto& notification : m_archive) {
        *list.Add() = notification;
    }
}

ObserverTree::ObsTreeObserveChangeSet BareAnswers::snapshot(const std::string& keyPattern) const {
    return changeSet(m_snapshot, keyPattern == snapshotPattern ? m_snapshot.size() : 1);
}

ObserverTree::ObsTreeObserveChangeSet BareAnswers::slice() const {
    return changeSet(m_slice, m_slice.size());
}

ObserverTree::ObsTreeObserveChangeSet BareAnswers::changeSet(const std::vector<KeyAndValue>& values,
                                                             std::size_t count) {
    ObserverTree::ObsTreeObserveChangeSet result;
    result.mutable_observestatus();
    auto& changes = *result.mutable_node_change_map();
    for (std::size_t i = 0; i < count; ++i) {
        *changes[values[i].key].add_nodepairlist()->mutable_currentmessage() = values[i].value;
    }
    return result;
}

ObserverTree::ObsTreeObserveChangeSet BareAnswers::change(
    const Api::StateNotification& notification, int index) const {
    google::protobuf::Any current;
    current.PackFrom(stored(notification, index));

    ObserverTree::ObsTreeObserveChangeSet result;
    result.mutable_observestatus();
    auto& changes = *result.mutable_node_change_map();
    *changes[archiveKey(index)].add_nodepairlist()->mutable_currentmessage() = current;
    if (index >= archiveSize) {
        *changes[archiveKey(index - archiveSize)].add_nodepairlist()->mutable_prevmessage() =
            m_formerReport;
    }
    auto& latest = *changes[latestKey(notification)].add_nodepairlist();
    *latest.mutable_currentmessage() = std::move(current);
    *latest.mutable_prevmessage() = m_formerReport;
    return result;
}

}  // namespace Hox::Benchmarks
