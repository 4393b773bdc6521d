#include "notification_store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "hox/observer_tree/path_error.h"
#include "state_mon_fixture.h"
#include "type_filter.h"

namespace Hox::Capability::StateMonitoring {
namespace {

using Fixture::notification;
using Fixture::timeStamp;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr auto OK = Api::StateSeverity::OK;
constexpr auto WARN = Api::StateSeverity::WARN;
constexpr auto ERROR = Api::StateSeverity::ERROR;

const std::string archive = "/state/notifications/archive/000000000";
const std::string latest = "/state/notifications/latest/";

/// A store with its data tree, without an observer tree.
class NotificationStoreTest : public testing::Test {
protected:
    NotificationStoreTest() { m_tree.setKeyPattern("/"); }

    void store(const Api::StateNotification& notification) {
        m_store.store(std::make_unique<Api::StateNotification>(notification), m_tree);
    }

    /// A value that the store has not written.
    void write(const std::string& key) {
        m_tree.insert_or_assign(
            key, std::make_shared<const Hox::ObserverTree::DataTreeVal>(timeStamp(1)));
    }

    std::vector<std::string> keys() const {
        std::vector<std::string> found;
        for (const auto& entry : m_tree) {
            found.push_back(entry.first);
        }
        return found;
    }

    static std::vector<int32_t> indicesOf(const NotificationStore::Notifications& notifications) {
        std::vector<int32_t> found;
        for (const auto& stored : notifications) {
            found.push_back(stored.index());
        }
        return found;
    }

    std::vector<int32_t> byIndex(int32_t index, const std::string& expression = "") const {
        NotificationStore::Notifications found;
        TypeFilter filter(expression);
        m_store.addByIndex(index, filter, found);
        return indicesOf(found);
    }

    std::vector<int32_t> byTime(int64_t seconds) const {
        NotificationStore::Notifications found;
        const std::string expression;
        TypeFilter filter(expression);
        m_store.addByTime(timeStamp(seconds), filter, found);
        return indicesOf(found);
    }

    std::vector<int32_t> latestIndices() const {
        NotificationStore::Notifications found;
        NotificationStore::addLatest(m_tree, found);
        return indicesOf(found);
    }

    Hox::ObserverTree::DataTree m_tree;
    NotificationStore m_store{3};
};

TEST_F(NotificationStoreTest, IsEmptyAtFirst) {
    EXPECT_EQ(m_store.nextIndex(), 0);
    EXPECT_FALSE(m_store.hasErrors());
    EXPECT_FALSE(m_store.hasWarnings());
    EXPECT_THAT(byIndex(0), IsEmpty());
    EXPECT_THAT(byTime(0), IsEmpty());
    EXPECT_THAT(latestIndices(), IsEmpty());
}

TEST_F(NotificationStoreTest, WritesTheLatestAndTheArchiveKey) {
    store(notification("a", "b", "c/d"));
    EXPECT_THAT(keys(), ElementsAre(archive + "0", latest + "a/b/c/d"));
    EXPECT_EQ(m_store.nextIndex(), 1);
    const auto first = m_tree.begin();
    EXPECT_EQ(first->second, std::next(first)->second);
}

TEST_F(NotificationStoreTest, LetsTheOldestLeaveAFullArchive) {
    for (int i = 0; i < 5; ++i) {
        store(notification("a", "b", "c"));
    }
    EXPECT_THAT(keys(), ElementsAre(archive + "2", archive + "3", archive + "4", latest + "a/b/c"));
    EXPECT_THAT(byIndex(0), ElementsAre(4, 3, 2));
    EXPECT_EQ(m_store.nextIndex(), 5);
}

TEST_F(NotificationStoreTest, WritesBetweenTheKeysOfOthers) {
    for (const char* key : {"/a", "/state/notifications/archive", "/state/notifications/archived",
                            "/state/notifications/latest", "/status"}) {
        write(key);
    }
    for (int i = 0; i < 4; ++i) {
        store(notification("a", "b", "c"));
    }
    EXPECT_THAT(keys(), ElementsAre("/a", "/state/notifications/archive", archive + "1",
                                    archive + "2", archive + "3", "/state/notifications/archived",
                                    "/state/notifications/latest", latest + "a/b/c", "/status"));
    EXPECT_THAT(latestIndices(), ElementsAre(3));
}

TEST_F(NotificationStoreTest, EndsTheLatestTableAtAKeyThatSortsAfterIt) {
    write("/status");
    EXPECT_THAT(latestIndices(), IsEmpty());
    store(notification("z", "z", "z"));
    store(notification("a", "b", "c"));
    EXPECT_THAT(latestIndices(), ElementsAre(1, 0));
}

TEST_F(NotificationStoreTest, AddsToWhatHasBeenFoundBefore) {
    store(notification("a", "b", "c"));
    NotificationStore::Notifications found;
    const std::string expression;
    TypeFilter filter(expression);
    m_store.addByIndex(0, filter, found);
    m_store.addByTime(timeStamp(0), filter, found);
    NotificationStore::addLatest(m_tree, found);
    EXPECT_THAT(indicesOf(found), ElementsAre(0, 0, 0));
}

TEST_F(NotificationStoreTest, SelectsByIndexNewestFirst) {
    store(notification("a", "Even", "c"));
    store(notification("a", "Odd", "c"));
    store(notification("a", "Even", "c"));
    EXPECT_THAT(byIndex(1), ElementsAre(2, 1));
    EXPECT_THAT(byIndex(-1), ElementsAre(2));
    EXPECT_THAT(byIndex(-2, "Even"), ElementsAre(2, 0));
    EXPECT_THAT(byIndex(3), IsEmpty());
}

TEST_F(NotificationStoreTest, SelectsByTimeInOrderOfArrival) {
    for (const int64_t seconds : {7, 5, 6}) {
        auto timed = notification("a", "b", "c");
        *timed.mutable_timestamp() = timeStamp(seconds);
        store(timed);
    }
    EXPECT_THAT(byTime(6), ElementsAre(0, 2));
    EXPECT_THAT(byTime(0), ElementsAre(0, 1, 2));
}

TEST_F(NotificationStoreTest, KnowsTheSeveritiesOfTheLatestOnes) {
    store(notification("a", "b", "x", ERROR));
    store(notification("a", "b", "y", ERROR));
    store(notification("a", "b", "x", WARN));
    EXPECT_TRUE(m_store.hasErrors());
    EXPECT_TRUE(m_store.hasWarnings());
    store(notification("a", "b", "y", OK));
    EXPECT_FALSE(m_store.hasErrors());
    store(notification("a", "b", "x", OK));
    EXPECT_FALSE(m_store.hasWarnings());
}

TEST_F(NotificationStoreTest, ChangesNothingForAnOriginThatMakesNoKey) {
    store(notification("a", "b", "c", WARN));
    const auto before = keys();
    EXPECT_THROW(store(notification("a", "", "c", ERROR)), Hox::ObserverTree::PathError);
    EXPECT_EQ(keys(), before);
    EXPECT_EQ(m_store.nextIndex(), 1);
    EXPECT_FALSE(m_store.hasErrors());
    EXPECT_THAT(byIndex(0), ElementsAre(0));
}

TEST(NotificationStoreDeathTest, WantsAnArchive) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(NotificationStore(0), "m_archiveSize > 0");
    EXPECT_DEATH(NotificationStore(-1), "m_archiveSize > 0");
}

}  // namespace
}  // namespace Hox::Capability::StateMonitoring
