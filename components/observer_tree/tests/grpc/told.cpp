#include "grpc/told.h"

#include <gtest/gtest.h>

#include "hox/testing/wait_until.h"
#include "test_service.grpc.pb.h"

namespace Hox::ObserverTree::Test {

const google::protobuf::MethodDescriptor& observeItems() {
    return *google::protobuf::DescriptorPool::generated_pool()
                ->FindServiceByName(TestService::service_full_name())
                ->FindMethodByName("observeItems");
}

void Told::add(const std::string& line) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.push_back(line);
}

std::vector<std::string> Told::lines() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_lines;
}

bool Told::waitFor(std::size_t count) const {
    return Hox::Testing::waitUntil([&] { return lines().size() >= count; });
}

ObserverCallback Told::callback() {
    return [this](const ChangeSetType& changes, const Status& status) {
        std::string line = std::to_string(status.statusCode()) + " " + status.errorMessage();
        for (const auto& [key, keyChanges] : changes) {
            const auto& current = keyChanges.at(0).current;
            line +=
                " " + key + "=" + (current ? std::to_string(current->get<Item>().count()) : "gone");
        }
        add(line);
    };
}

AsyncGrpcClientHandler::CallBackMethodType Told::elementCallback() {
    return [this, token = m_token](const std::unique_ptr<google::protobuf::Message>& message,
                                   const grpc::Status& status) {
        if (message) {
            const auto& element = dynamic_cast<const ObsTreeObserveChangeSet&>(*message);
            EXPECT_TRUE(status.ok());
            add(element.node_change_map().begin()->first);
        } else {
            add(std::to_string(status.error_code()) + " " + status.error_message());
        }
    };
}

}  // namespace Hox::ObserverTree::Test
