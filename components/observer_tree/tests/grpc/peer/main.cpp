// A peer that tests kill. Usage: <program> <port>; 0 lets the system choose. Several may serve the
// same port. Prints the port, then serves until it is killed: the text of each answer and the only
// key of each stream is "/" and the number of the process.
#include <grpcpp/server.h>
#include <grpcpp/server_builder.h>
#include <unistd.h>

#include <chrono>
#include <iostream>
#include <string>
#include <thread>

#include "test_service.grpc.pb.h"

namespace {

using Hox::ObserverTree::ObserveReq;
using Hox::ObserverTree::ObsTreeObserveChangeSet;
using Hox::ObserverTree::Test::Answer;
using Hox::ObserverTree::Test::Item;
using Hox::ObserverTree::Test::TestService;

std::string name() {
    return "/" + std::to_string(::getpid());
}

class NumberedService : public TestService::Service {
public:
    grpc::Status readItem(grpc::ServerContext*, const Item*, Answer* answer) override {
        answer->set_text(name());
        return grpc::Status::OK;
    }

    grpc::Status observeItems(grpc::ServerContext* context, const ObserveReq*,
                              grpc::ServerWriter<ObsTreeObserveChangeSet>* writer) override {
        ObsTreeObserveChangeSet element;
        (*element.mutable_node_change_map())[name()];
        writer->Write(element);
        while (!context->IsCancelled()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return grpc::Status::OK;
    }
};

}  // namespace

int main(int, char** argv) {
    NumberedService service;
    int port = 0;
    grpc::ServerBuilder builder;
    builder.AddListeningPort("127.0.0.1:" + std::string(argv[1]), grpc::InsecureServerCredentials(),
                             &port);
    builder.RegisterService(&service);
    const auto server = builder.BuildAndStart();
    if (!server) {
        return 1;
    }
    std::cout << port << std::endl;
    server->Wait();
}
