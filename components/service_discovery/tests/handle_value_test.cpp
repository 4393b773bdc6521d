#include "hox/service_discovery/handle_value.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

namespace Hox::Service::Discovery {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Value = HandleValue<std::unique_ptr<int>>;

class HandleValueTest : public ::testing::Test {
protected:
    Handle handle(unsigned int id) {
        return Handle(id, [this](const Handle& dropped) { m_dropped.push_back(dropped.value()); });
    }

    std::vector<unsigned int> m_dropped;
};

TEST_F(HandleValueTest, ReleasesItsRequestOnce) {
    {
        Value value(handle(7), std::make_unique<int>(5));
        EXPECT_TRUE(value.isValid());
        EXPECT_EQ(value.value(), 7U);
        EXPECT_EQ(*value.content(), 5);
        const Value moved = std::move(value);
        const Value movedAgain = Value(Handle(), nullptr);
        EXPECT_EQ(*moved.content(), 5);
        EXPECT_FALSE(movedAgain.isValid());
        EXPECT_THAT(m_dropped, IsEmpty());
    }
    EXPECT_THAT(m_dropped, ElementsAre(7));
}

TEST_F(HandleValueTest, LeavesItsContentBehindAsAPlainHandle) {
    {
        Value value(handle(7), std::make_unique<int>(5));
        const auto& content = value.content();
        const Handle plain = std::move(value);
        EXPECT_TRUE(plain.isValid());
        EXPECT_NE(content, nullptr);
    }
    EXPECT_THAT(m_dropped, ElementsAre(7));
}

TEST_F(HandleValueTest, ReleasesTheFormerRequestWhenItIsAssigned) {
    Value value(handle(1), nullptr);
    value = Value(handle(2), std::make_unique<int>(5));
    EXPECT_THAT(m_dropped, ElementsAre(1));
    EXPECT_EQ(*value.content(), 5);
}

TEST_F(HandleValueTest, HoldsNothingByDefault) {
    EXPECT_FALSE(Value().isValid());
    EXPECT_FALSE(std::is_copy_constructible_v<Value>);
}

}  // namespace
}  // namespace Hox::Service::Discovery
