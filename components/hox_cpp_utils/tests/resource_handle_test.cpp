#include "hox/cpputil/resource/resource_handle.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace Hox::CppUtil {
namespace {

using Handle = ResourceHandle<unsigned int>;
using testing::ElementsAre;
using testing::IsEmpty;

/// Records the number of each handle that is released.
class ResourceHandleTest : public testing::Test {
protected:
    Handle makeHandle(unsigned int number) {
        return Handle(number, [this](const Handle& handle) {
            EXPECT_TRUE(handle.isValid());
            m_released.push_back(handle.value());
        });
    }

    std::vector<unsigned int> m_released;
};

TEST_F(ResourceHandleTest, IsEmptyByDefault) {
    const Handle handle;
    EXPECT_FALSE(handle.isValid());
    EXPECT_EQ(handle.value(), 0U);
}

TEST_F(ResourceHandleTest, CanBeMovedOnlyAndDerivedFrom) {
    EXPECT_FALSE(std::is_copy_constructible_v<Handle>);
    EXPECT_FALSE(std::is_copy_assignable_v<Handle>);
    EXPECT_TRUE(std::is_nothrow_move_constructible_v<Handle>);
    EXPECT_TRUE(std::is_nothrow_move_assignable_v<Handle>);
    EXPECT_TRUE(std::has_virtual_destructor_v<Handle>);
}

TEST_F(ResourceHandleTest, ReleasesItselfOnceWhenItDies) {
    {
        const auto handle = makeHandle(7);
        EXPECT_TRUE(handle.isValid());
        EXPECT_EQ(handle.value(), 7U);
        EXPECT_THAT(m_released, IsEmpty());
    }
    EXPECT_THAT(m_released, ElementsAre(7U));
}

TEST_F(ResourceHandleTest, IsValidWithoutAReleaseFunction) {
    Handle handle(3);
    EXPECT_TRUE(handle.isValid());
    const Handle other(std::move(handle));
    EXPECT_TRUE(other.isValid());
    EXPECT_EQ(other.value(), 3U);
}

TEST_F(ResourceHandleTest, AMovedFromHandleReleasesNothing) {
    {
        auto source = std::make_unique<Handle>(makeHandle(7));
        const Handle target(std::move(*source));
        EXPECT_FALSE(source->isValid());
        EXPECT_TRUE(target.isValid());
        EXPECT_EQ(target.value(), 7U);
        source.reset();
        EXPECT_THAT(m_released, IsEmpty());
    }
    EXPECT_THAT(m_released, ElementsAre(7U));
}

TEST_F(ResourceHandleTest, AssigningReleasesTheTargetFirst) {
    auto target = makeHandle(1);
    auto source = makeHandle(2);
    target = std::move(source);
    EXPECT_THAT(m_released, ElementsAre(1U));
    EXPECT_TRUE(target.isValid());
    EXPECT_EQ(target.value(), 2U);
    EXPECT_FALSE(source.isValid());  // NOLINT(bugprone-use-after-move): this is what is tested
}

TEST_F(ResourceHandleTest, AssigningToAnEmptyHandleReleasesNothing) {
    {
        Handle target;
        target = makeHandle(2);
        EXPECT_TRUE(target.isValid());
        EXPECT_THAT(m_released, IsEmpty());
    }
    EXPECT_THAT(m_released, ElementsAre(2U));
}

TEST_F(ResourceHandleTest, AssigningAnEmptyHandleDropsTheResource) {
    auto handle = makeHandle(5);
    handle = Handle();
    EXPECT_FALSE(handle.isValid());
    EXPECT_THAT(m_released, ElementsAre(5U));
}

TEST_F(ResourceHandleTest, AMovedFromHandleCanHoldAgain) {
    {
        auto handle = makeHandle(1);
        auto other = std::move(handle);
        handle = makeHandle(2);  // NOLINT(bugprone-use-after-move): this is what is tested
        EXPECT_TRUE(handle.isValid());
        EXPECT_THAT(m_released, IsEmpty());
    }
    EXPECT_THAT(m_released, ElementsAre(1U, 2U));
}

TEST_F(ResourceHandleTest, AssigningToItselfChangesNothing) {
    {
        auto handle = makeHandle(4);
        auto& same = handle;
        handle = std::move(same);
        EXPECT_TRUE(handle.isValid());
        EXPECT_THAT(m_released, IsEmpty());
    }
    EXPECT_THAT(m_released, ElementsAre(4U));
}

TEST_F(ResourceHandleTest, TheReleaseFunctionMayOwnTheHandleThatIsAssigned) {
    struct Owner {
        Handle handle;
    };
    auto owner = std::make_shared<Owner>();
    owner->handle = makeHandle(2);
    auto& source = owner->handle;
    {
        Handle target(1, [owner = std::move(owner)](const Handle&) {});
        target = std::move(source);
        EXPECT_EQ(target.value(), 2U);
        EXPECT_THAT(m_released, IsEmpty());
    }
    EXPECT_THAT(m_released, ElementsAre(2U));
}

TEST_F(ResourceHandleTest, HandlesInAVectorAreReleasedOnceEach) {
    {
        std::vector<Handle> handles;
        for (unsigned int number = 1; number <= 20; ++number) {
            handles.push_back(makeHandle(number));
        }
        EXPECT_THAT(m_released, IsEmpty());
    }
    EXPECT_EQ(m_released.size(), 20U);
}

TEST_F(ResourceHandleTest, ADerivedHandleReleasesThroughItsBase) {
    class Named : public Handle {
    public:
        Named(Handle&& handle, std::string name)
            : Handle(std::move(handle)), m_name(std::move(name)) {}
        const std::string& name() const { return m_name; }

    private:
        std::string m_name;
    };
    {
        auto first = std::make_unique<Named>(makeHandle(9), "nine");
        const auto second = std::make_unique<Named>(std::move(*first));
        EXPECT_EQ(second->name(), "nine");
        const std::unique_ptr<Handle> base = std::make_unique<Named>(std::move(*second));
        EXPECT_TRUE(base->isValid());
    }
    EXPECT_THAT(m_released, ElementsAre(9U));
}

TEST_F(ResourceHandleTest, ReleasesOnTheThreadThatDropsIt) {
    std::thread::id releasedOn;
    Handle handle(1, [&releasedOn](const Handle&) { releasedOn = std::this_thread::get_id(); });
    std::thread::id dropper;
    std::thread thread([&dropper, handle = std::move(handle)]() mutable {
        dropper = std::this_thread::get_id();
        handle = Handle();
    });
    thread.join();
    EXPECT_EQ(releasedOn, dropper);
}

class ResourceHandleDeathTest : public testing::Test {
protected:
    void SetUp() override { testing::GTEST_FLAG(death_test_style) = "threadsafe"; }
};

TEST_F(ResourceHandleDeathTest, AnExceptionOutOfTheReleaseEndsTheProcess) {
    EXPECT_DEATH(
        { const Handle handle(1, [](const Handle&) { throw std::runtime_error("spoilt"); }); },
        "spoilt");
}

}  // namespace
}  // namespace Hox::CppUtil
