#pragma once

#include <memory>
#include <string>

#include "test_service.grpc.pb.h"

namespace Hox::ObserverTree::Test {

/// An observe stream of a client.
struct ObserveClient {
    explicit ObserveClient(TestService::Stub& stub, const std::string& keyPattern = "/**");

    /// Waits for the next element; false at the stream's end.
    bool read() { return reader->Read(&element); }

    grpc::ClientContext context;
    std::unique_ptr<grpc::ClientReader<ObsTreeObserveChangeSet>> reader;
    ObsTreeObserveChangeSet element;
};

}  // namespace Hox::ObserverTree::Test
