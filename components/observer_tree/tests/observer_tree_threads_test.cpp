#include <unistd.h>

#include <atomic>
#include <fstream>
#include <future>
#include <thread>

#include "hox/observer_tree/change_set_conversion.h"
#include "hox/observer_tree/observer_tree.h"
#include "hox/testing/wait_until.h"
#include "tree_test_kit.h"

namespace Hox::ObserverTree {
namespace {

using Hox::Testing::waitUntil;
using TestKit::message;
using TestKit::onUpdate;
using TestKit::onUpdateWrite;
using TestKit::pattern;
using TestKit::update;
using TestKit::value;
using namespace std::chrono_literals;

/// Much longer than any step of these tests.
constexpr auto limit = 30s;

/// Whether all these threads of the process sleep and continue to sleep.
bool areAsleep(const std::vector<std::atomic<pid_t>>& threads) {
    for (int check = 0; check < 3; ++check) {
        for (const auto& thread : threads) {
            std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
            std::string stat;
            std::getline(file, stat);
            // "number (name) state ..."; the name may contain any character.
            const auto name = stat.rfind(") ");
            if (name == std::string::npos || stat.at(name + 2) != 'S') {
                return false;
            }
        }
        std::this_thread::yield();
    }
    return true;
}

/// Runs the function on `threadCount` threads at the same time, with the thread's number.
void inParallel(int threadCount, const std::function<void(int)>& run) {
    std::promise<void> gate;
    const auto opened = gate.get_future().share();
    std::vector<std::future<void>> threads;
    for (int i = 0; i < threadCount; ++i) {
        threads.push_back(std::async(std::launch::async, [&run, opened, i] {
            opened.wait();
            run(i);
        }));
    }
    gate.set_value();
    for (auto& thread : threads) {
        thread.get();
    }
}

/// An observer whose call lasts until the test ends it.
class SlowObserver {
public:
    ObserverCallback callback() {
        return [this](const ChangeSetType&, const Status&) {
            ++m_calls;
            m_entered.set_value();
            EXPECT_EQ(m_released.get_future().wait_for(limit), std::future_status::ready);
            m_isOver = true;
        };
    }

    void waitUntilEntered() {
        ASSERT_EQ(m_entered.get_future().wait_for(limit), std::future_status::ready);
    }
    void release() { m_released.set_value(); }
    bool isOver() const { return m_isOver; }
    int calls() const { return m_calls; }

private:
    std::promise<void> m_entered;
    std::promise<void> m_released;
    std::atomic<bool> m_isOver{false};
    std::atomic<int> m_calls{0};
};

class TreeThreads : public testing::Test {
protected:
    void SetUp() override {
        m_tree.registerDefaultObserveHandler("/obs");
        onUpdateWrite(m_tree, "/a", "/a");
    }

    ObserveRaiiHandleType<ObserveReq> observe(const ObserverCallback& callback,
                                              const std::string& keyPattern = "/**") {
        return m_tree.observe<ObserveReq>("/obs", pattern(keyPattern), callback, 0);
    }

    ObserverTree m_tree;
};

TEST_F(TreeThreads, DroppingAHandleWaitsForTheDeliveryUnderWay) {
    SlowObserver slow;
    std::promise<void> isLeaving;
    m_tree.registerObserverGoneHandler<ObserveReq>(
        "/obs", [&](const ObserveReq&, const ObserverCallback&) { isLeaving.set_value(); });
    auto handle = observe(slow.callback());
    auto delivery = std::async(std::launch::async, [this] { update(m_tree, "/a", "1"); });
    slow.waitUntilEntered();

    std::vector<std::atomic<pid_t>> dropper(1);
    std::atomic<bool> isDropped{false};
    auto drop = std::async(std::launch::async, [&, dropped = std::move(handle)]() mutable {
        dropper[0] = gettid();
        dropped.reset();
        isDropped = true;
    });
    EXPECT_EQ(isLeaving.get_future().wait_for(limit), std::future_status::ready);
    EXPECT_TRUE(waitUntil([&] { return isDropped || areAsleep(dropper); }));
    EXPECT_FALSE(isDropped);
    slow.release();
    drop.get();
    delivery.get();

    update(m_tree, "/a", "2");
    EXPECT_EQ(slow.calls(), 1);
}

TEST_F(TreeThreads, AHandleOfAnotherNodeIsDroppedAtOnce) {
    SlowObserver slow;
    m_tree.registerDefaultObserveHandler("/other");
    auto other = m_tree.observe<ObserveReq>(
        "/other", pattern("/**"), [](const ChangeSetType&, const Status&) {}, 0);
    const auto handle = observe(slow.callback());
    auto delivery = std::async(std::launch::async, [this] { update(m_tree, "/a", "1"); });
    slow.waitUntilEntered();
    std::async(std::launch::async, [dropped = std::move(other)]() mutable {
        dropped.reset();
    }).get();
    EXPECT_FALSE(slow.isOver());
    slow.release();
    delivery.get();
}

TEST_F(TreeThreads, ASlowObserverHoldsUpEveryOtherUserOfTheTree) {
    SlowObserver slow;
    onUpdateWrite(m_tree, "/c", "/c");
    auto handle = m_tree.observe<ObserveReq>("/obs", pattern("/a"), slow.callback(), 0);
    auto delivery = std::async(std::launch::async, [this] { update(m_tree, "/a", "1"); });
    slow.waitUntilEntered();

    std::atomic<int> done{0};
    const std::vector<std::function<void()>> users = {
        [this] { m_tree.dumpDataTree(); }, [this] { onUpdateWrite(m_tree, "/b", "/b"); },
        [this] { update(m_tree, "/c", "2"); },
        [this] { m_tree.unaryOpCast<UnaryOps::UPDATE>("/c", message("3")); },
        [this] { observe([](const ChangeSetType&, const Status&) {}, "/x").reset(); }};
    std::vector<std::atomic<pid_t>> waiting(users.size());
    std::vector<std::future<void>> threads;
    for (std::size_t i = 0; i < users.size(); ++i) {
        threads.push_back(std::async(std::launch::async, [&waiting, &done, &users, i] {
            waiting[i] = gettid();
            users[i]();
            ++done;
        }));
    }
    EXPECT_TRUE(waitUntil([&] { return done > 0 || areAsleep(waiting); }));
    EXPECT_EQ(done, 0);
    slow.release();
    delivery.get();
    for (auto& thread : threads) {
        thread.get();
    }
    EXPECT_EQ(done, 5);
}

TEST_F(TreeThreads, OperationsAreStrictlySerial) {
    constexpr int threadCount = 4;
    constexpr int rounds = 250;
    int64_t counter = 0;  // guarded only by the tree
    bool isInside = false;
    int overlaps = 0;
    onUpdate(m_tree, "/n", [&](const std::string&, DataTree& data) {
        overlaps += std::exchange(isInside, true) ? 1 : 0;
        data.insert_or_assign("/n",
                              std::make_shared<const DataTreeVal>(TestKit::number(++counter)));
        isInside = false;
    });
    int64_t last = 0;
    int gaps = 0;
    const auto handle = observe(
        [&](const ChangeSetType& changes, const Status&) {
            const auto& change = changes.at("/n").front();
            const auto current = change.current->get<TestKit::Int64Value>().value();
            const auto previous =
                change.previous ? change.previous->get<TestKit::Int64Value>().value() : 0;
            overlaps += isInside ? 1 : 0;
            gaps += previous == last && current == last + 1 ? 0 : 1;
            last = current;
        },
        "/n");
    inParallel(threadCount, [this](int) {
        for (int i = 0; i < rounds; ++i) {
            if (i % 2 == 0) {
                update(m_tree, "/n");
            } else {
                m_tree.unaryOpCast<UnaryOps::UPDATE>("/n", message(""));
            }
        }
    });
    EXPECT_EQ(last, threadCount * rounds);
    EXPECT_EQ(gaps, 0);
    EXPECT_EQ(overlaps, 0);
}

TEST_F(TreeThreads, MayBeUsedInAllWaysAtOnce) {
    constexpr int rounds = 60;
    std::atomic<int> delivered{0};
    const auto count = [&](const ChangeSetType& changes, const Status&) {
        ObsTreeObserveChangeSet wire;
        toWire(changes, wire);
        delivered += static_cast<int>(wire.node_change_map().size());
    };
    onUpdate(m_tree, "/nested", [this](const std::string&, DataTree& data) {
        data.insert_or_assign("/nested", value("n"));
        update(m_tree, "/a", "from nested");
    });
    const auto keeper = observe(count);
    const std::vector<std::function<void(int)>> users = {
        [this](int) { update(m_tree, "/a", "x"); },
        [this](int) { m_tree.unaryOpCast<UnaryOps::UPDATE>("/a", message("z")); },
        [this](int) { update(m_tree, "/nested"); },
        [this](int round) {
            const auto address = "/made/" + std::to_string(round);
            onUpdateWrite(m_tree, address, address);
            update(m_tree, address, "y");
        },
        [this](int) {
            EXPECT_THAT(m_tree.dumpDataTree(), testing::Not(testing::HasSubstr("None")));
        },
        [&](int round) {
            auto handle = observe(count, round % 2 == 0 ? "/a" : "/made/*");
            handle.reset();
        },
        [&](int round) {
            m_tree.registerObserverGoneHandler<ObserveReq>(
                "/obs", [&, round](const ObserveReq&, const ObserverCallback&) {
                    delivered += round < 0 ? 1 : 0;
                });
            const auto address = "/obs/" + std::to_string(round);
            m_tree.registerDefaultObserveHandler(address);
            m_tree.registerNewObserverHandler<ObserveReq>(
                address, [](const ObserveReq&, const ObserverCallback&) {});
        }};
    inParallel(static_cast<int>(users.size()), [&](int i) {
        for (int round = 0; round < rounds; ++round) {
            users[static_cast<std::size_t>(i)](round);
        }
    });
    // The keeper alone has seen each change: /a twice, both of nested, and the created keys.
    EXPECT_GE(delivered, 5 * rounds);
}

TEST_F(TreeThreads, HandlesMayBeDroppedOnAnotherThreadThanTheirTreesUsers) {
    constexpr int rounds = 200;
    std::atomic<int> gone{0};
    m_tree.registerObserverGoneHandler<ObserveReq>(
        "/obs", [&](const ObserveReq&, const ObserverCallback&) { ++gone; });
    std::vector<ObserveRaiiHandleType<ObserveReq>> handles;
    for (int i = 0; i < 2 * rounds; ++i) {
        handles.push_back(observe([](const ChangeSetType&, const Status&) {}));
    }
    inParallel(3, [&](int thread) {
        for (int i = 0; i < rounds; ++i) {
            if (thread == 2) {
                update(m_tree, "/a", std::to_string(i));
            } else {
                handles[static_cast<std::size_t>(2 * i + thread)].reset();
            }
        }
    });
    EXPECT_EQ(gone, 2 * rounds);
}

TEST_F(TreeThreads, HooksMayBeReplacedWhileHandlesAreDropped) {
    constexpr int rounds = 3000;
    std::atomic<int> gone{0};
    std::atomic<bool> isOver{false};
    const auto count = [&gone](const ObserveReq&, const ObserverCallback&) { ++gone; };
    m_tree.registerObserverGoneHandler<ObserveReq>("/obs", count);
    std::vector<ObserveRaiiHandleType<ObserveReq>> handles;
    for (int i = 0; i < rounds; ++i) {
        handles.push_back(observe([](const ChangeSetType&, const Status&) {}));
    }
    inParallel(2, [&](int thread) {
        if (thread == 0) {
            do {
                m_tree.registerObserverGoneHandler<ObserveReq>("/obs", count);
            } while (!isOver);
        } else {
            handles.clear();
            isOver = true;
        }
    });
    EXPECT_EQ(gone, rounds);
}

TEST(PathThreads, EachUsesAnInstanceOfItsOwn) {
    std::atomic<int> matched{0};
    inParallel(4, [&](int) {
        const PathManipulation path;
        for (int i = 0; i < 200; ++i) {
            const auto key = path.parsePath(PathType::Key, "/a/" + std::to_string(i));
            const auto keyPattern = path.parsePath(PathType::KeyPattern, "/a/*");
            matched += path.matches(key, keyPattern) ? 1 : 0;
        }
    });
    EXPECT_EQ(matched, 800);
}

}  // namespace
}  // namespace Hox::ObserverTree
