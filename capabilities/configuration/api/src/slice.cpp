#include "hox/configuration/slice.h"

#include <google/protobuf/any.pb.h>
#include <google/protobuf/wrappers.pb.h>

#include <utility>

#include "hox/configuration/storable_key.h"

namespace Hox::Capability::Configuration {

using Hox::ObserverTree::ChangeSetType;
using Hox::ObserverTree::DataTreeVal;
using Hox::ObserverTree::DataTreeValPtr;
using Hox::ObserverTree::Status;

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

void Slice::onChanges(ChangeSetType changes, const Callback& callback) {
    const auto stateId = changes.extract(stateIdKey);
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const bool isKnown =
            stateId && !stateId.mapped().empty() && stateId.mapped().front().current;
        m_stateId =
            isKnown ? stateId.mapped().front().current->get<google::protobuf::StringValue>().value()
                    : "";
    }
    callback(changes);
}

Status Slice::store(const std::string& key, DataTreeValPtr value) {
    std::string stateId;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        stateId = m_stateId;
    }
    const ChangeSetType changes{{key, {{std::move(value), nullptr}}}};
    auto stored =
        m_store->storeNodeData(stateId, m_nodeType, m_nodeId, m_capabilityId, changes, true);
    if (stored.status.isOk()) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stateId = stored.stateId;
    }
    return stored.status;
}

}  // namespace Hox::Capability::Configuration
