#pragma once

#include <google/protobuf/message.h>
#include <grpcpp/grpcpp.h>

#include <string>

namespace Hox::Benchmarks {

/// The full name of a method of the state monitor, as gRPC expects it.
std::string methodName(const char* method);

/// The full name of a method of the configuration store.
std::string configurationMethodName(const char* method);

/// The message as sent over the wire.
grpc::ByteBuffer toBytes(const google::protobuf::Message& message);

/// Parses bytes received over the wire. Throws std::runtime_error if they are not such a message.
void fromBytes(const grpc::ByteBuffer& bytes, google::protobuf::Message& message);

}  // namespace Hox::Benchmarks
