#pragma once

#include <future>
#include <string>

#include "test_service.grpc.pb.h"

namespace Hox::ObserverTree::Test {

/// A unary call of a client thread.
struct UnaryResult {
    grpc::Status status;
    Answer answer;
};

using UnaryMethod = grpc::Status (TestService::Stub::*)(grpc::ClientContext*, const Item&, Answer*);

/// Starts a call of the method with the name of an item.
std::future<UnaryResult> startCall(TestService::Stub& stub, UnaryMethod method,
                                   const std::string& name);

}  // namespace Hox::ObserverTree::Test
