#pragma once

#include <google/protobuf/descriptor_database.h>

#include <exception>
#include <set>
#include <string>
#include <vector>

#include "connection.h"
#include "descriptor_source.h"
#include "grpc/reflection/v1alpha/reflection.pb.h"

namespace Hox::Ctl {

/// The proto files of a running service, by server reflection. Each look-up that no earlier answer
/// contains asks the service, once per name.
class Reflection : public DescriptorSource {
public:
    /// The connection must outlive this object.
    explicit Reflection(const Connection& connection) : m_connection(connection) {}

    std::vector<std::string> services() override;
    void check() const override;
    bool FindFileByName(const std::string& name,
                        google::protobuf::FileDescriptorProto* output) override;
    bool FindFileContainingSymbol(const std::string& symbol,
                                  google::protobuf::FileDescriptorProto* output) override;
    /// Extensions of messages are not looked for.
    bool FindFileContainingExtension(const std::string& containingType, int number,
                                     google::protobuf::FileDescriptorProto* output) override;

private:
    using Request = grpc::reflection::v1alpha::ServerReflectionRequest;
    using Response = grpc::reflection::v1alpha::ServerReflectionResponse;

    Response ask(const Request& request);
    grpc::Status askAt(const std::string& path, const Request& request, Response& response,
                       grpc::ClientContext& context) const;
    bool learn(const Request& request);

    const Connection& m_connection;
    bool m_isFirstVersion = true;
    google::protobuf::SimpleDescriptorDatabase m_known;
    std::set<std::string> m_unknown;
    std::exception_ptr m_error;
};

}  // namespace Hox::Ctl
