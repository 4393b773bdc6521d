#include "load_client/wire_bytes.h"

#include <stdexcept>
#include <vector>

namespace Hox::Benchmarks {

std::string methodName(const char* method) {
    return std::string("/Hox.Capability.StateMonitoring.Api.StateMonitoringService/") + method;
}

std::string configurationMethodName(const char* method) {
    return std::string("/Hox.Capability.Configuration.Api.ConfigurationService/") + method;
}

grpc::ByteBuffer toBytes(const google::protobuf::Message& message) {
    const grpc::Slice slice(message.SerializeAsString());
    return {&slice, 1};
}

void fromBytes(const grpc::ByteBuffer& bytes, google::protobuf::Message& message) {
    std::vector<grpc::Slice> slices;
    std::string text;
    if (bytes.Dump(&slices).ok()) {
        for (const auto& slice : slices) {
            text.append(reinterpret_cast<const char*>(slice.begin()), slice.size());
        }
    }
    if (!message.ParseFromString(text)) {
        throw std::runtime_error("The answer is no " + message.GetTypeName());
    }
}

}  // namespace Hox::Benchmarks
