#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "hox/observer_tree/grpc/async_grpc_client_handler.h"
#include "hox/observer_tree/tree_types.h"

namespace Hox::ObserverTree::Test {

/// The observe method of the test service.
const google::protobuf::MethodDescriptor& observeItems();

/// Records what an observer was told; callable from any thread.
class Told {
public:
    void add(const std::string& line);

    std::vector<std::string> lines() const;

    /// Whether there are as many lines within half a minute.
    bool waitFor(std::size_t count) const;

    /// For an observer of a proxy: "<code> <text> <key>=<count>...".
    ObserverCallback callback();

    /// For a call of the client's handler: the first key of an element, or code and text of a
    /// failure.
    AsyncGrpcClientHandler::CallBackMethodType elementCallback();

    /// How many of the element callbacks still exist.
    long elementCallbacks() const { return m_token.use_count() - 1; }

private:
    std::shared_ptr<int> m_token = std::make_shared<int>();
    mutable std::mutex m_mutex;
    std::vector<std::string> m_lines;  // GUARDED_BY(m_mutex)
};

}  // namespace Hox::ObserverTree::Test
