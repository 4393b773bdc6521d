#include "hox/configuration/slice.h"

#include <google/protobuf/any.pb.h>
#include <google/protobuf/wrappers.pb.h>

#include <utility>

#include "hox/configuration/storable_key.h"
#include "hox/observer_tree/persistence/value_text.h"

namespace Hox::Capability::Configuration {

using Hox::ObserverTree::ChangeSetType;
using Hox::ObserverTree::DataTreeVal;
using Hox::ObserverTree::DataTreeValPtr;
using Hox::ObserverTree::ProtoStatus;
using Hox::ObserverTree::Status;

namespace {

/// Whether the store sends all that there is, as at the beginning of each observation. A change of
/// what is there has the former state id, or none if it has left the state id as it was.
bool isWholeContent(const ChangeSetType& changes) {
    const auto stateId = changes.find(stateIdKey);
    if (stateId == changes.end()) {
        return changes.empty();
    }
    const auto& change = stateId->second.front();
    return change.current && !change.previous;
}

/// The form in which two equal values are equal: their bytes depend on who has written them.
std::string textOf(const DataTreeVal& value) {
    return Hox::ObserverTree::textOfValue(*value.toAny());
}

}  // namespace

Slice::Slice(std::shared_ptr<Hox::ObserverTree::INodeDataHndlr> store, std::string nodeType,
             std::string nodeId, std::string capabilityId)
    : m_store(std::move(store)),
      m_nodeType(std::move(nodeType)),
      m_nodeId(std::move(nodeId)),
      m_capabilityId(std::move(capabilityId)) {}

void Slice::observe(Callback callback) {
    m_observation = m_store->observeNodeData(
        "", m_nodeType, m_nodeId, m_capabilityId,
        [this, callback = std::move(callback)](ChangeSetType changes, const Status& status) {
            if (status.isOk()) {  // otherwise the store is lost for a while, or has nothing new
                onChanges(std::move(changes), callback);
            }
        });
}

Status Slice::set(const std::string& key, const google::protobuf::Message& message) {
    google::protobuf::Any packed;
    packed.PackFrom(message);
    return store(key, std::make_shared<const DataTreeVal>(std::move(packed)));
}

Status Slice::remove(const std::string& key) {
    return store(key, nullptr);
}

bool Slice::waitForContent(std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_hasBeenTold.wait_for(lock, limit, [this] { return m_isTold; });
}

void Slice::onChanges(ChangeSetType changes, const Callback& callback) {
    bool isFirst = false;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        ++m_elements;
        isFirst = !std::exchange(m_hasContent, true);
        if (isWholeContent(changes)) {
            m_stateId.clear();
            reduceToDifferences(changes);
        }
        if (const auto stateId = changes.extract(stateIdKey)) {
            const auto& current = stateId.mapped().front().current;
            m_stateId = current ? current->get<google::protobuf::StringValue>().value() : "";
        }
        for (const auto& [key, keyChanges] : changes) {
            keep(key, keyChanges.front().current);
        }
    }
    if (isFirst || !changes.empty()) {
        callback(changes);
    }
    if (isFirst) {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_isTold = true;
        }
        m_hasBeenTold.notify_all();
    }
}

void Slice::reduceToDifferences(ChangeSetType& content) const {
    for (const auto& [key, known] : m_content) {
        const auto found = content.find(key);
        if (found == content.end()) {
            content.emplace(key, ChangeSetType::mapped_type{{nullptr, nullptr}});
            continue;
        }
        const auto& current = found->second.front().current;
        if (current && textOf(*current) == known) {
            content.erase(found);
        }
    }
}

void Slice::keep(const std::string& key, const DataTreeValPtr& value) {
    if (value) {
        m_content.insert_or_assign(key, textOf(*value));
    } else {
        m_content.erase(key);
    }
}

Status Slice::store(const std::string& key, DataTreeValPtr value) {
    const std::lock_guard<std::mutex> storeLock(m_storeMutex);
    std::string stateId;
    std::uint64_t elements = 0;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_hasContent) {
            return {ProtoStatus::FAILED_PRECONDITION, "The slice has not been observed yet"};
        }
        stateId = m_stateId;
        elements = m_elements;
    }
    const ChangeSetType changes{{key, {{value, nullptr}}}};
    auto stored =
        m_store->storeNodeData(stateId, m_nodeType, m_nodeId, m_capabilityId, changes, true);
    const std::lock_guard<std::mutex> lock(m_mutex);
    // What has been observed meanwhile may be newer than the answer. If it is older, the store
    // refuses the next change, and is observed anew.
    if (stored.status.isOk() && m_elements == elements) {
        m_stateId = stored.stateId;
        keep(key, value);
    }
    return stored.status;
}

}  // namespace Hox::Capability::Configuration
