#include "common/sample_configuration.h"

#include <fmt/format.h>
#include <google/protobuf/wrappers.pb.h>

#include <array>
#include <cstddef>

namespace Hox::Benchmarks {

namespace {

constexpr std::array settingNames{"address", "bitrate", "codec",  "enabled",  "frequency",
                                  "label",   "name",    "output", "protocol", "source"};
constexpr std::size_t valueSize = 100;

}  // namespace

std::string settingKey(int setting) {
    const auto index = static_cast<std::size_t>(setting);
    return fmt::format("/device/{:05}/{}", index / settingNames.size(),
                       settingNames[index % settingNames.size()]);
}

google::protobuf::Any settingValue(int setting) {
    google::protobuf::StringValue text;
    text.set_value(fmt::format("{:05} as the operator has set it", setting));
    text.mutable_value()->resize(valueSize, '.');
    google::protobuf::Any packed;
    packed.PackFrom(text);
    return packed;
}

ConfApi::ConfId sampleSlice(const std::string& capabilityId) {
    ConfApi::ConfId slice;
    slice.set_nodetype("head");
    slice.set_nodeid("1");
    slice.set_capabilityid(capabilityId);
    return slice;
}

ConfApi::UpdateCapConfReq fullUpdate(const ConfApi::ConfId& slice, int settings) {
    ConfApi::UpdateCapConfReq request;
    *request.mutable_confid() = slice;
    auto& changes = *request.mutable_capconfchangeset()->mutable_node_change_map();
    for (int i = 0; i < settings; ++i) {
        *changes[settingKey(i)].add_nodepairlist()->mutable_currentmessage() = settingValue(i);
    }
    return request;
}

}  // namespace Hox::Benchmarks
