#include "hox/observer_tree/grpc/in_process_gate.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>

namespace Hox::ObserverTree::Test {
namespace {

TEST(InProcessGate, LetsAnyNumberPassAtOnce) {
    InProcessGate gate;
    const auto first = gate.pass();
    const auto second = gate.pass();
    EXPECT_TRUE(first.owns_lock());
    EXPECT_TRUE(second.owns_lock());
}

TEST(InProcessGate, WaitsForThoseWhoHavePassed) {
    InProcessGate gate;
    auto first = gate.pass();
    auto second = gate.pass();
    auto closing = std::async(std::launch::async, [&gate] { gate.close(); });
    first.unlock();
    EXPECT_EQ(closing.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    second.unlock();
    closing.get();
}

TEST(InProcessGate, LetsNobodyPassOnceItIsClosed) {
    InProcessGate gate;
    gate.close();
    const auto passage = gate.pass();
    EXPECT_FALSE(passage.owns_lock());
    EXPECT_FALSE(gate.pass().owns_lock());
    gate.close();  // would wait for ever for a held pass
}

}  // namespace
}  // namespace Hox::ObserverTree::Test
