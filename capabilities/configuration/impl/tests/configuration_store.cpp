#include "configuration_store.h"

#include "hox/testing/log_capture.h"

namespace Hox::Capability::Configuration {

using google::protobuf::StringValue;
using Hox::ObserverTree::ChangeSetType;
using Hox::ObserverTree::Status;
using Hox::ObserverTree::UnaryOps;

google::protobuf::Any packed(const std::string& text) {
    StringValue message;
    message.set_value(text);
    google::protobuf::Any any;
    any.PackFrom(message);
    return any;
}

Update::Update(const std::string& capability, const std::string& stateId) {
    request.mutable_confid()->set_nodetype("mb");
    request.mutable_confid()->set_nodeid("0");
    request.mutable_confid()->set_capabilityid(capability);
    request.set_lastcapconfstateid(stateId);
    request.set_ispatch(true);
}

Update& Update::set(const std::string& key, const std::string& text) {
    *pair(key).mutable_currentmessage() = packed(text);
    return *this;
}

Update& Update::remove(const std::string& key) {
    pair(key);
    return *this;
}

Update& Update::full() {
    request.set_ispatch(false);
    return *this;
}

Hox::ObserverTree::ObsTreeDataNodePair& Update::pair(const std::string& key) {
    return *(*request.mutable_capconfchangeset()->mutable_node_change_map())[key]
                .add_nodepairlist();
}

ConfigurationStore::ConfigurationStore() {
    // Loggers created before the first capture write at another time.
    const Hox::Testing::LogCapture first;
    start();
}

void ConfigurationStore::start() {
    m_handler.reset();
    m_tree.emplace();
    m_handler.emplace(*m_tree, m_lock, m_mutex, (m_dir / "conf").string(), "head-1");
    m_handler->registerObsTreeHandlers();
    m_handler->addObservers();
}

Status ConfigurationStore::tryUpdate(const Update& update) {
    auto result =
        m_tree->callApiOp<UnaryOps::UPDATE, Api::UpdateCapConfReq, Api::UpdateCapConfResp>(
            "/sys/conf", update.request);
    m_stateId = result.message->capconfstateid();
    return result.status;
}

std::string ConfigurationStore::update(const Update& request) {
    const Status status = tryUpdate(request);
    EXPECT_TRUE(status.isOk()) << status.errorMessage();
    EXPECT_FALSE(m_stateId.empty());
    return m_stateId;
}

Status ConfigurationStore::call(const Api::UpdateSysConfReq& request) {
    return m_tree
        ->callApiOp<UnaryOps::UPDATE, Api::UpdateSysConfReq, Api::UpdateSysConfResp>(
            "/sys/conf/.data.", request)
        .status;
}

Status ConfigurationStore::save() {
    Api::UpdateSysConfReq request;
    request.mutable_update_type()->set_savechanges(false);
    return call(request);
}

Status ConfigurationStore::discard() {
    Api::UpdateSysConfReq request;
    request.mutable_update_type()->set_discardchanges(false);
    return call(request);
}

Status ConfigurationStore::clear() {
    Api::UpdateSysConfReq request;
    request.mutable_update_type()->set_clearconfiguration(false);
    return call(request);
}

Status ConfigurationStore::importPackage(const std::string& data) {
    Api::UpdateSysConfReq request;
    request.mutable_update_type()->set_sysconfdata(data);
    return call(request);
}

Status ConfigurationStore::exportPackage(std::string& data) {
    auto result = m_tree->callApiOp<UnaryOps::READ, Api::GetSysConfReq, Api::GetSysConfResp>(
        "/sys/conf/.data.", {});
    data = result.message->sysconfdata();
    return result.status;
}

std::any ConfigurationStore::observe(const std::string& capability, const std::string& stateId,
                                     std::vector<std::string>& told) {
    Api::ObserveCapConfReq request;
    *request.mutable_confid() = Update(capability).request.confid();
    request.set_lastcapconfstateid(stateId);
    return m_tree->observe<Api::ObserveCapConfReq>(
        "/sys/conf", request,
        [&told](const ChangeSetType& changes, const Status& status) {
            std::string line = std::to_string(status.statusCode()) + status.errorMessage();
            for (const auto& [key, keyChanges] : changes) {
                const auto& current = keyChanges.at(0).current;
                line += " " + key;
                if (key != "/__csid") {
                    line += "=" + (current ? current->get<StringValue>().value() : "gone");
                }
            }
            told.push_back(line);
        },
        0);
}

std::vector<std::string> ConfigurationStore::content() {
    std::vector<std::string> lines;
    const std::string dump = m_tree->dumpDataTree();
    std::size_t start = 0;
    while ((start = dump.find("key: \"", start)) != std::string::npos) {
        start += 6;
        lines.push_back(dump.substr(start, dump.find('"', start) - start));
    }
    return lines;
}

}  // namespace Hox::Capability::Configuration
