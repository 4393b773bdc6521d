#pragma once

#include <grpcpp/grpcpp.h>

#include <memory>
#include <string>

#include "common/sample_configuration.h"
#include "load_client/unary_load.h"

namespace Hox::Benchmarks {

/// The owner of one slice: fills it again and again, each time with the last state id that it got.
/// The settings are serialised in advance; only the state id is added to each request.
class ConfigurationClient {
public:
    /// Uses a slice that no other client on this machine uses.
    ConfigurationClient(EventLoop& loop, const std::shared_ptr<grpc::Channel>& channel);

    /// Prepares the settings that the next updates put into the slice.
    void prepare(int settings);

    /// Replaces the content of the slice by the prepared settings; returns when the update is
    /// answered. Throws std::runtime_error if the server refuses it.
    void update();

    const ConfApi::ConfId& slice() const { return m_slice; }

private:
    UnaryLoad m_updates;
    ConfApi::ConfId m_slice;
    grpc::Slice m_settings;
    std::string m_stateId;
};

}  // namespace Hox::Benchmarks
