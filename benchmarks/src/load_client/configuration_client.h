#pragma once

#include <grpcpp/grpcpp.h>

#include <memory>
#include <string>

#include "common/sample_configuration.h"
#include "load_client/unary_load.h"

namespace Hox::Benchmarks {

/// The owner of one slice: fills it over and over, each time on top of the state id that it got
/// last. The settings are serialised ahead; only the state id is added to each request.
class ConfigurationClient {
public:
    /// A slice that nobody else on this machine uses.
    ConfigurationClient(EventLoop& loop, const std::shared_ptr<grpc::Channel>& channel);

    /// What the next updates put into the slice.
    void prepare(int settings);

    /// Sends the prepared settings in place of what the slice holds; returns when that is answered.
    /// Throws std::runtime_error when the server refuses it.
    void update();

    const ConfApi::ConfId& slice() const { return m_slice; }

private:
    UnaryLoad m_updates;
    ConfApi::ConfId m_slice;
    grpc::Slice m_settings;
    std::string m_stateId;
};

}  // namespace Hox::Benchmarks
