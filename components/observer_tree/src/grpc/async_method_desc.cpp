#include "hox/observer_tree/grpc/async_method_desc.h"

#include <utility>

namespace Hox::ObserverTree {

namespace {

std::unique_ptr<const google::protobuf::Message> makePrototype(
    const google::protobuf::Descriptor* type) {
    auto* factory = google::protobuf::MessageFactory::generated_factory();
    return std::unique_ptr<const google::protobuf::Message>(factory->GetPrototype(type)->New());
}

}  // namespace

AsyncMethodDesc::AsyncMethodDesc(const google::protobuf::MethodDescriptor& method,
                                 std::shared_ptr<IRequestWrapperService> wrapper,
                                 ObserverTree* servedTree)
    : index(method.index()),
      options(method.options().GetExtension(obs_tree_option)),
      requestPrototype(makePrototype(method.input_type())),
      responsePrototype(makePrototype(method.output_type())),
      reqWrapperService(std::move(wrapper)),
      isServerStreaming(method.server_streaming()),
      tree(servedTree),
      fullName(method.full_name()) {}

}  // namespace Hox::ObserverTree
