#include "store_connection.h"

#include <gmock/gmock.h>
#include <grpcpp/create_channel.h>

#include <memory>
#include <mutex>

#include "configuration.grpc.pb.h"
#include "hox/cpputil/log/logsystem.h"
#include "hox/testing/assertion_reports.h"
#include "hox/testing/reserved_port.h"

namespace Hox::Capability::Configuration {
namespace {

using Hox::ObserverTree::AsyncGrpcProxyObsTreeBuilder;
using ::testing::Each;
using ::testing::IsEmpty;
using ::testing::Not;

class StoreConnectionTest : public ::testing::Test {
protected:
    /// Waits for a store that nobody runs, until the wait has been asked that often.
    bool await(int questions, std::chrono::steady_clock::duration limit) {
        StoreWait wait(Hox::Log::getLogsystem()->getLogger("StoreConnectionTest"), "nobody",
                       [&questions] { return questions-- == 0; });
        return StoreConnection::await(*m_store, wait, limit);
    }

    const Testing::ReservedPort m_port;
    const std::shared_ptr<Hox::ObserverTree::GrpcProxyObserverTree> m_store =
        AsyncGrpcProxyObsTreeBuilder().createProxyObsTree<Api::ConfigurationService>(
            grpc::CreateChannel("127.0.0.1:" + m_port.text(), grpc::InsecureChannelCredentials()),
            std::make_shared<std::mutex>(), nullptr);
    const Testing::AssertionReports m_reports;
};

TEST_F(StoreConnectionTest, AssertsThatTheStoreIsThereWithinTheLimit) {
    EXPECT_FALSE(await(2, std::chrono::milliseconds(1)));
    EXPECT_THAT(m_reports.conditions(),
                AllOf(Not(IsEmpty()), Each("m_confProxy->waitForConnected(std::chrono::system_"
                                           "clock::now() + std::chrono::hours(1))")));
}

TEST_F(StoreConnectionTest, WaitsForAnHourForAStoreThatIsNeeded) {
    EXPECT_EQ(StoreConnection::neededWithin, std::chrono::hours(1));
    EXPECT_FALSE(await(2, StoreConnection::neededWithin));
    EXPECT_THAT(m_reports.conditions(), IsEmpty());
}

TEST_F(StoreConnectionTest, WaitsForEverForAStoreThatIsNot) {
    EXPECT_FALSE(await(2, StoreConnection::noLimit));
    EXPECT_THAT(m_reports.conditions(), IsEmpty());
}

}  // namespace
}  // namespace Hox::Capability::Configuration
