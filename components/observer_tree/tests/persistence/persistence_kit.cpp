#include "persistence/persistence_kit.h"

#include <utility>

namespace Hox::ObserverTree::TestKit {

RegExObserveReq expression(const std::string& regEx) {
    RegExObserveReq request;
    request.set_reg_ex(regEx);
    return request;
}

StoreNodeDataReturn FakeCentralStore::storeNodeData(const std::string& lastStateId,
                                                    const std::string& nodeType,
                                                    const std::string& nodeId,
                                                    const std::string& capabilityId,
                                                    const ChangeSetType& changes, bool isPatch) {
    calls.push_back(lastStateId + "|" + nodeType + "/" + nodeId + "/" + capabilityId + "|" +
                    (isPatch ? "patch" : "full"));
    for (const auto& line : linesOf(changes)) {
        calls.push_back("  " + line);
    }
    return answerTo(changes);
}

StoreNodeDataReturn FakeCentralStore::answerTo(const ChangeSetType& changes) {
    if (answers.empty()) {
        return changes.size() == changes.count("/__csid")
                   ? StoreNodeDataReturn{Status(ProtoStatus::ALREADY_EXISTS, ""), ""}
                   : StoreNodeDataReturn{Status(), "id" + std::to_string(++m_stored)};
    }
    auto answer = answers.front();
    answers.pop_front();
    return answer;
}

std::any FakeCentralStore::observeNodeData(
    const std::string& lastStateId, const std::string& nodeType, const std::string& nodeId,
    const std::string& capabilityId,
    std::function<void(ChangeSetType, const Status&)> newCallback) {
    calls.push_back("observe " + lastStateId + "|" + nodeType + "/" + nodeId + "/" + capabilityId);
    const std::string asked = lastStateId;
    callback = std::move(newCallback);
    if (onObserve) {
        onObserve();
    }
    // A store may read its arguments until it returns.
    EXPECT_EQ(lastStateId, asked);
    return std::shared_ptr<void>(this, [this](void* /*store*/) {
        ++endedObservings;
        if (onEndOfObserving) {
            onEndOfObserving();
        }
    });
}

Persistence::Persistence() {
    m_tree.registerUnaryOpHandler<UnaryOps::UPDATE, StringValue, StringValue>(
        "/set", [this](const StringValue& /*request*/, DataTree& tree) {
            tree.setKeyPattern("/.any.");
            m_write(tree);
            return UnaryHandlerReturnType<StringValue>{nullptr, Status()};
        });
}

PersistenceHndlr& Persistence::handler(const std::string& regex) {
    m_handler = std::make_unique<PersistenceHndlr>(m_tree, m_lock, "mb", "0", "cap", regex);
    return *m_handler;
}

void Persistence::write(std::function<void(DataTree&)> action) {
    m_write = std::move(action);
    m_tree.callApiOp<UnaryOps::UPDATE, StringValue, StringValue>("/set", StringValue());
}

void Persistence::set(const std::string& key, const std::string& text) {
    set(key, value(text));
}

void Persistence::set(const std::string& key, DataTreeValPtr newValue) {
    write([&key, newValue = std::move(newValue)](DataTree& tree) {
        tree.insert_or_assign(key, newValue);
    });
}

void Persistence::remove(const std::string& key) {
    write([&key](DataTree& tree) { tree.erase(key); });
}

std::vector<std::string> Persistence::content() {
    std::vector<std::string> lines;
    write([&lines](DataTree& tree) {
        for (const auto& [key, held] : tree) {
            lines.push_back(key + "=" + textOf(held));
        }
    });
    return lines;
}

std::vector<std::string> Persistence::files(const std::filesystem::path& dir) {
    std::vector<std::string> lines;
    for (const auto& [key, changes] : NodeDataFileHndlr().readNodeData(dir)) {
        lines.push_back(key + "=" + textOf(changes.at(0).current));
    }
    return lines;
}

ObserveRaiiHandleType<RegExObserveReq> Persistence::observe(const std::string& regEx,
                                                            Observations& observations) {
    auto handle = m_tree.observe<RegExObserveReq>(persistObserveAddress, expression(regEx),
                                                  observations.callback(), 0);
    observations.take();
    return handle;
}

UpdateDataTreeResp Persistence::update(const UpdateDataTreeReq& request) {
    return *m_tree
                .callApiOp<UnaryOps::UPDATE, UpdateDataTreeReq, UpdateDataTreeResp>(
                    persistUpdateAddress, request)
                .message;
}

ReadDataTreeResp Persistence::read(const std::string& regex) {
    ReadDataTreeReq request;
    request.set_regex(regex);
    return *m_tree
                .callApiOp<UnaryOps::READ, ReadDataTreeReq, ReadDataTreeResp>(persistUpdateAddress,
                                                                              request)
                .message;
}

}  // namespace Hox::ObserverTree::TestKit
