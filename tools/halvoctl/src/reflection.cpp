#include "reflection.h"

#include <grpcpp/channel.h>
#include <grpcpp/impl/codegen/proto_utils.h>
#include <grpcpp/impl/rpc_method.h>
#include <grpcpp/support/sync_stream.h>

#include <cstddef>
#include <memory>

#include "call_error.h"

namespace Hox::Ctl {

using google::protobuf::FileDescriptorProto;

namespace {

constexpr auto currentPath = "/grpc.reflection.v1.ServerReflection/ServerReflectionInfo";
constexpr auto formerPath = "/grpc.reflection.v1alpha.ServerReflection/ServerReflectionInfo";

/// How many names that the service does not know are remembered; further ones are asked for again.
constexpr std::size_t mostUnknown = 1000;

}  // namespace

grpc::Status Reflection::askAt(const std::string& path, const Request& request, Response& response,
                               grpc::ClientContext& context) const {
    const grpc::internal::RpcMethod method(path.c_str(), grpc::internal::RpcMethod::BIDI_STREAMING);
    const std::unique_ptr<grpc::ClientReaderWriter<Request, Response>> stream(
        grpc::internal::ClientReaderWriterFactory<Request, Response>::Create(
            m_connection.channel().get(), method, &context));
    stream->Write(request);
    stream->WritesDone();
    const bool isAnswered = stream->Read(&response);
    Response surplus;
    while (stream->Read(&surplus)) {
    }
    auto status = stream->Finish();
    if (status.ok() && !isAnswered) {
        return {grpc::StatusCode::INTERNAL, "The reflection service has sent no answer"};
    }
    return status;
}

Reflection::Response Reflection::ask(const Request& request) {
    for (;;) {
        grpc::ClientContext context;
        const auto cancellation = m_connection.limit(context);
        Response response;
        const auto status =
            askAt(m_isFirstVersion ? currentPath : formerPath, request, response, context);
        if (status.ok()) {
            return response;
        }
        if (status.error_code() != grpc::StatusCode::UNIMPLEMENTED || !m_isFirstVersion) {
            m_connection.fail(status, context);
        }
        m_isFirstVersion = false;
    }
}

std::vector<std::string> Reflection::services() {
    Request request;
    request.set_list_services("*");
    const auto response = ask(request);
    std::vector<std::string> names;
    for (const auto& service : response.list_services_response().service()) {
        names.push_back(service.name());
    }
    return names;
}

void Reflection::check() const {
    if (m_error) {
        std::rethrow_exception(m_error);
    }
}

bool Reflection::learn(const Request& request) {
    m_error = nullptr;
    try {
        const auto response = ask(request);
        for (const auto& text : response.file_descriptor_response().file_descriptor_proto()) {
            FileDescriptorProto file;
            FileDescriptorProto known;
            if (file.ParseFromString(text) && !m_known.FindFileByName(file.name(), &known)) {
                m_known.Add(file);
            }
        }
        return true;
    } catch (const CtlError&) {
        m_error = std::current_exception();
        return false;
    }
}

bool Reflection::FindFileByName(const std::string& name, FileDescriptorProto* output) {
    if (m_known.FindFileByName(name, output)) {
        return true;
    }
    Request request;
    request.set_file_by_filename(name);
    return learn(request) && m_known.FindFileByName(name, output);
}

bool Reflection::FindFileContainingSymbol(const std::string& symbol, FileDescriptorProto* output) {
    if (m_known.FindFileContainingSymbol(symbol, output)) {
        return true;
    }
    if (m_unknown.count(symbol) != 0) {
        return false;
    }
    Request request;
    request.set_file_containing_symbol(symbol);
    if (!learn(request)) {
        return false;
    }
    const bool isKnown = m_known.FindFileContainingSymbol(symbol, output);
    if (!isKnown && m_unknown.size() < mostUnknown) {
        m_unknown.insert(symbol);
    }
    return isKnown;
}

bool Reflection::FindFileContainingExtension(const std::string& /*containingType*/, int /*number*/,
                                             FileDescriptorProto* /*output*/) {
    return false;
}

}  // namespace Hox::Ctl
