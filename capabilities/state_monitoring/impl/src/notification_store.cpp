#include "notification_store.h"

#include <iterator>
#include <limits>
#include <utility>
#include <vector>

#include "hox/cpputil/assertion/assertion.h"
#include "notification_keys.h"

namespace Hox::Capability::StateMonitoring {

using Hox::ObserverTree::DataTreeVal;
using Hox::ObserverTree::DataTreeValPtr;

namespace {

bool isEarlier(const google::protobuf::Timestamp& left, const google::protobuf::Timestamp& right) {
    return left.seconds() != right.seconds() ? left.seconds() < right.seconds()
                                             : left.nanos() < right.nanos();
}

}  // namespace

NotificationStore::NotificationStore(int32_t archiveSize) : m_archiveSize(archiveSize) {
    HOX_ASSERT(m_archiveSize > 0);
}

void NotificationStore::store(std::unique_ptr<Api::StateNotification> notification,
                              DataTree& tree) {
    auto key = latestKey(*notification);
    const auto severity = notification->severity();
    const auto former = m_latest.find(key);
    Api::StoredNotification stored;
    stored.set_index(m_nextIndex);
    stored.set_allocated_statenotification(notification.release());
    if (former != m_latest.end()) {
        stored.mutable_previousstateseverity()->set_stateseverity(former->second.severity);
    }
    DataTreeValPtr value = std::make_shared<const DataTreeVal>(std::move(stored));

    if (former != m_latest.end()) {
        tree.insert_or_assign(former->second.position, std::move(key), DataTreeValPtr(value));
        countSeverity(former->second.severity, -1);
        former->second.severity = severity;
    } else {
        // Throws for a malformed key; nothing has changed yet.
        const auto position = tree.insert_or_assign(std::move(key), DataTreeValPtr(value)).first;
        m_latest.emplace(position->first, LatestEntry{position, severity});
    }
    countSeverity(severity, 1);
    archive(std::move(value), tree);
    ++m_nextIndex;
}

void NotificationStore::archive(DataTreeValPtr value, DataTree& tree) {
    const auto& notification = value->get<Api::StoredNotification>();
    const auto afterNewest =
        m_archive.empty() ? tree.begin() : std::next(m_archive.back().position);
    const auto position =
        tree.insert_or_assign(afterNewest, archiveKey(m_nextIndex), std::move(value)).first;
    m_archive.push_back({position, &notification});
    if (m_archive.size() > static_cast<std::size_t>(m_archiveSize)) {
        tree.erase(m_archive.front().position);
        m_archive.pop_front();
    }
}

void NotificationStore::countSeverity(Api::StateSeverity severity, int32_t difference) {
    if (severity == Api::StateSeverity::ERROR) {
        m_latestErrors += difference;
    } else if (severity == Api::StateSeverity::WARN) {
        m_latestWarnings += difference;
    }
}

void NotificationStore::addByIndex(int32_t index, TypeFilter& filter, Notifications& found) const {
    const auto limit = index < 0 ? static_cast<std::size_t>(-static_cast<int64_t>(index))
                                 : std::numeric_limits<std::size_t>::max();
    std::vector<const Api::StoredNotification*> selected;
    for (auto entry = m_archive.rbegin(); entry != m_archive.rend(); ++entry) {
        const auto& stored = *entry->notification;
        if (stored.index() < index || selected.size() == limit) {
            break;
        }
        if (filter.accepts(stored.statenotification().type())) {
            selected.push_back(&stored);
        }
    }
    // After the walk: the entries are scattered in memory, and a walk without copying stalls less.
    found.Reserve(found.size() + static_cast<int>(selected.size()));
    for (const auto* stored : selected) {
        *found.Add() = *stored;
    }
}

void NotificationStore::addByTime(const google::protobuf::Timestamp& from, TypeFilter& filter,
                                  Notifications& found) const {
    for (const auto& entry : m_archive) {
        const auto& notification = entry.notification->statenotification();
        if (!isEarlier(notification.timestamp(), from) && filter.accepts(notification.type())) {
            *found.Add() = *entry.notification;
        }
    }
}

void NotificationStore::addLatest(const DataTree& tree, Notifications& found) {
    for (auto entry = tree.lower_bound(latestPrefix); liesUnder(entry, latestPrefix, tree);
         ++entry) {
        *found.Add() = entry->second->get<Api::StoredNotification>();
    }
}

}  // namespace Hox::Capability::StateMonitoring
