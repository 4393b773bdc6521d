#include "load_client/configuration_client.h"

#include <unistd.h>

#include <array>

#include "load_client/wire_bytes.h"

namespace Hox::Benchmarks {

namespace {

std::string freshName() {
    static int number = 0;
    return std::to_string(::getpid()) + "-" + std::to_string(++number);
}

}  // namespace

ConfigurationClient::ConfigurationClient(EventLoop& loop,
                                         const std::shared_ptr<grpc::Channel>& channel)
    : m_updates(loop, channel, configurationMethodName("updateCapConf"), {}),
      m_slice(sampleSlice(freshName())) {}

void ConfigurationClient::prepare(int settings) {
    m_settings = grpc::Slice(fullUpdate(m_slice, settings).SerializeAsString());
}

void ConfigurationClient::update() {
    // Concatenated serialised messages are read as one.
    ConfApi::UpdateCapConfReq stateId;
    stateId.set_lastcapconfstateid(m_stateId);
    const std::array parts{m_settings, grpc::Slice(stateId.SerializeAsString())};
    const auto& answer = m_updates.callOnce(grpc::ByteBuffer(parts.data(), parts.size()));
    ConfApi::UpdateCapConfResp response;
    fromBytes(answer, response);
    m_stateId = response.capconfstateid();
}

}  // namespace Hox::Benchmarks
