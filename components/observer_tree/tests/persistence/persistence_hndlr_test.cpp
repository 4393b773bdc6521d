#include "hox/observer_tree/persistence/persistence_hndlr.h"

#include <gtest/gtest.h>

#include <deque>
#include <filesystem>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "hox/testing/log_capture.h"
#include "hox/testing/temp_dir.h"
#include "hox/testing/wait_until.h"
#include "tree_test_kit.h"

namespace Hox::ObserverTree {
namespace {

using google::protobuf::StringValue;
using Hox::Testing::LogCapture;
using Hox::Testing::TempDir;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using TestKit::value;

constexpr const char* updateAddress = "/.persist_upd_hndlr.";

/// A central store that records what it is sent and answers as it is told, by default with ids of
/// its own. Like the real one it has no use for the state id itself.
class FakeCentralStore : public INodeDataHndlr {
public:
    StoreNodeDataReturn storeNodeData(const std::string& lastStateId, const std::string& nodeType,
                                      const std::string& nodeId, const std::string& capabilityId,
                                      const ChangeSetType& changes, bool isPatch) override {
        calls.push_back(lastStateId + "|" + nodeType + "/" + nodeId + "/" + capabilityId + "|" +
                        (isPatch ? "patch" : "full"));
        for (const auto& line : TestKit::linesOf(changes)) {
            calls.push_back("  " + line);
        }
        if (answers.empty()) {
            return changes.size() == changes.count("/__csid")
                       ? StoreNodeDataReturn{Status(ProtoStatus::ALREADY_EXISTS, ""), ""}
                       : StoreNodeDataReturn{Status(), "id" + std::to_string(++stored)};
        }
        auto answer = answers.front();
        answers.pop_front();
        return answer;
    }

    std::any observeNodeData(
        const std::string& lastStateId, const std::string& nodeType, const std::string& nodeId,
        const std::string& capabilityId,
        std::function<void(ChangeSetType, const Status&)> newCallback) override {
        calls.push_back("observe " + lastStateId + "|" + nodeType + "/" + nodeId + "/" +
                        capabilityId);
        callback = std::move(newCallback);
        if (onObserve) {
            onObserve();
        }
        return std::make_shared<int>(0);
    }

    std::vector<std::string> calls;
    std::deque<StoreNodeDataReturn> answers;
    std::function<void()> onObserve;
    std::function<void(ChangeSetType, const Status&)> callback;
    int stored = 0;
};

class Persistence : public ::testing::Test {
protected:
    Persistence() {
        m_tree.registerUnaryOpHandler<UnaryOps::UPDATE, StringValue, StringValue>(
            "/set", [this](const StringValue& /*request*/, DataTree& tree) {
                tree.setKeyPattern("/.any.");
                m_write(tree);
                return UnaryHandlerReturnType<StringValue>{nullptr, Status()};
            });
    }

    void write(std::function<void(DataTree&)> action) {
        m_write = std::move(action);
        m_tree.callApiOp<UnaryOps::UPDATE, StringValue, StringValue>("/set", StringValue());
    }

    void set(const std::string& key, const std::string& text) {
        write([&](DataTree& tree) { tree.insert_or_assign(key, value(text)); });
    }

    void remove(const std::string& key) {
        write([&](DataTree& tree) { tree.erase(key); });
    }

    std::vector<std::string> content() {
        std::vector<std::string> lines;
        write([&](DataTree& tree) {
            for (const auto& [key, held] : tree) {
                lines.push_back(key + "=" + TestKit::textOf(held));
            }
        });
        return lines;
    }

    std::vector<std::string> files(const std::filesystem::path& dir) {
        std::vector<std::string> lines;
        for (const auto& [key, changes] : NodeDataFileHndlr().readNodeData(dir)) {
            lines.push_back(key + "=" + TestKit::textOf(changes.at(0).current));
        }
        return lines;
    }

    PersistenceHndlr& handler(const std::string& regex = "/keep/.*") {
        m_handler = std::make_unique<PersistenceHndlr>(m_tree, m_lock, "mb", "0", "cap", regex);
        return *m_handler;
    }

    TempDir m_parent;
    const std::filesystem::path m_dir = m_parent / "store";
    std::function<void(DataTree&)> m_write;
    std::unique_ptr<std::unique_lock<std::mutex>> m_lock;
    ObserverTree m_tree;
    std::unique_ptr<PersistenceHndlr> m_handler;
};

TEST_F(Persistence, TellsItsExpression) {
    LogCapture log("PersistenceHndlr");
    handler();
    EXPECT_THAT(log.textsAt(spdlog::level::trace),
                ElementsAre("Starting Persistence handler with persistKeyRegex /keep/.*|/__csid"));
}

TEST_F(Persistence, MakesTheDirectoryAndEmptiesTheMatchingPartOfTheTree) {
    LogCapture log("PersistenceHndlr");
    set("/keep/a", "1");
    set("/other", "2");
    handler().init(false, m_dir);
    EXPECT_TRUE(std::filesystem::is_directory(m_dir));
    EXPECT_THAT(content(), ElementsAre("/other=2"));
    EXPECT_THAT(log.textsAt(spdlog::level::info),
                ElementsAre("Created persist directory " + m_dir.string()));
}

TEST_F(Persistence, LoadsWhatIsInTheDirectoryAndSaysNothingOfOneThatExists) {
    LogCapture log("PersistenceHndlr");
    NodeDataFileHndlr().saveChangeSet(TestKit::newKeys({"/keep/a", "/keep/a/b", "/foreign"}),
                                      m_dir);
    handler().init(false, m_dir);
    EXPECT_THAT(content(), ElementsAre("/keep/a=/keep/a", "/keep/a/b=/keep/a/b"));
    EXPECT_THAT(log.textsAt(spdlog::level::info), IsEmpty());
}

TEST_F(Persistence, StoresEveryChangeOfMatchingKeys) {
    handler().init(true, m_dir);
    set("/keep/a", "1");
    set("/other", "2");
    set("/keep/b", "3");
    set("/keep/a", "4");
    EXPECT_THAT(files(m_dir), ElementsAre("/keep/a=4", "/keep/b=3"));
    remove("/keep/a");
    EXPECT_THAT(files(m_dir), ElementsAre("/keep/b=3"));
}

TEST_F(Persistence, DoesNotStoreTheFirstSnapshotUnlessAsked) {
    set("/keep/a", "1");
    auto& persistence = handler();
    persistence.startPersistingObsTree(m_dir, false);
    EXPECT_FALSE(std::filesystem::exists(m_dir));
    persistence.stopPersistingObsTree();
    set("/keep/b", "2");
    set("/keep/c", "3");
    EXPECT_FALSE(std::filesystem::exists(m_dir)) << "after the end";
    persistence.startPersistingObsTree(m_dir, true);
    EXPECT_THAT(files(m_dir), ElementsAre("/keep/a=1", "/keep/b=2", "/keep/c=3"));
}

TEST_F(Persistence, StoresTheFirstChangeOfATreeThatWasEmpty) {
    handler().init(true, m_dir);
    set("/keep/a", "1");
    EXPECT_THAT(files(m_dir), ElementsAre("/keep/a=1"));
}

TEST_F(Persistence, TouchesNothingWithoutADirectory) {
    set("/keep/a", "1");
    handler().init(true, "");
    set("/keep/b", "2");
    EXPECT_THAT(content(), ElementsAre("/keep/a=1", "/keep/b=2"));
    EXPECT_TRUE(std::filesystem::is_empty(m_parent.path()));
}

TEST_F(Persistence, StoresTheStateIdLikeAnyMatchingKey) {
    handler().init(true, m_dir);
    set("/__csid", "7");
    EXPECT_THAT(files(m_dir), ElementsAre("/__csid=7"));
}

using PersistenceDeathTest = Persistence;

TEST_F(PersistenceDeathTest, CannotBeStartedTwice) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            auto& persistence = handler();
            persistence.startPersistingObsTree("", false);
            persistence.startPersistingObsTree("", false);
        },
        "Assertion failed: \\[!m_observeRaiiHandle.has_value\\(\\)\\]");
}

TEST_F(PersistenceDeathTest, EndsTheProcessWhenAFileCannotBeWritten) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            handler().init(true, m_dir);
            std::filesystem::remove(m_dir);
            std::filesystem::create_symlink("/proc/no/such/place", m_dir);
            set("/keep/a", "1");
        },
        "Assertion failed: \\[false\\]");
}

TEST_F(Persistence, MergesReplacesOrComparesChanges) {
    auto& persistence = handler();
    std::vector<std::string> seen;
    const auto watch = [&] {
        RegExObserveReq request;
        request.set_reg_ex("/keep/.*|/__csid");
        auto handle = m_tree.observe<RegExObserveReq>(
            "/.persist_observe_hndlr.", request,
            [&seen](const ChangeSetType& changes, const Status&) {
                for (const auto& line : TestKit::linesOf(changes)) {
                    seen.push_back(line);
                }
            },
            0);
        seen.clear();
        return handle;
    };
    persistence.applyChangeSet(TestKit::newKeys({"/keep/a", "/keep/b", "/foreign"}), true, false);
    EXPECT_THAT(content(), ElementsAre("/keep/a=/keep/a", "/keep/b=/keep/b"));
    const auto handle = watch();
    persistence.applyChangeSet(TestKit::newKeys({"/keep/b", "/keep/c"}), true, false);
    EXPECT_THAT(seen, ElementsAre("/keep/b: /keep/b -> /keep/b", "/keep/c: null -> /keep/c"));
    seen.clear();
    persistence.applyChangeSet(TestKit::newKeys({"/keep/b", "/keep/d"}), false, true);
    EXPECT_THAT(seen, ElementsAre("/keep/a: /keep/a -> null", "/keep/c: /keep/c -> null",
                                  "/keep/d: null -> /keep/d"));
    seen.clear();
    persistence.applyChangeSet(TestKit::newKeys({"/keep/b"}), false, false);
    EXPECT_THAT(seen, ElementsAre("/keep/b: /keep/b -> /keep/b", "/keep/d: /keep/d -> null"));
}

TEST_F(Persistence, RemovesAKeyWithoutCurrentMessage) {
    auto& persistence = handler();
    persistence.applyChangeSet(TestKit::newKeys({"/keep/a", "/keep/b"}), true, false);
    ChangeSetType removal;
    removal["/keep/a"] = {ChangeSetMapVal{nullptr, value("x")}};
    removal["/keep/never"] = {ChangeSetMapVal{nullptr, nullptr}};
    persistence.applyChangeSet(removal, true, false);
    EXPECT_THAT(content(), ElementsAre("/keep/b=/keep/b"));
}

TEST_F(Persistence, AnswersTheStateIdAndReadsByExpression) {
    handler();
    set("/keep/a", "1");
    set("/keep/ab", "2");
    set("/__csid", "9");
    UpdateDataTreeReq update;
    const auto updated = m_tree.callApiOp<UnaryOps::UPDATE, UpdateDataTreeReq, UpdateDataTreeResp>(
        updateAddress, update);
    EXPECT_EQ(updated.message->conf_state_id(), "9");
    ReadDataTreeReq read;
    read.set_regex("/keep/a");
    const auto answer =
        m_tree.callApiOp<UnaryOps::READ, ReadDataTreeReq, ReadDataTreeResp>(updateAddress, read);
    const auto& changes = answer.message->changeset().node_change_map();
    ASSERT_EQ(changes.size(), 1U);
    EXPECT_EQ(changes.at("/keep/a").nodepairlist_size(), 1);
    EXPECT_TRUE(changes.at("/keep/a").nodepairlist(0).has_currentmessage());
    EXPECT_FALSE(changes.at("/keep/a").nodepairlist(0).has_prevmessage());
}

TEST_F(Persistence, RegexObserverOfAMalformedExpressionIsToldOnce) {
    handler();
    RegExObserveReq request;
    request.set_reg_ex("/keep/(");
    std::vector<std::string> told;
    const auto handle = m_tree.observe<RegExObserveReq>(
        "/.persist_observe_hndlr.", request,
        [&told](const ChangeSetType& changes, const Status& status) {
            told.push_back(std::to_string(status.statusCode()) + " " +
                           std::to_string(changes.size()) + " " + status.errorMessage());
        },
        0);
    set("/keep/a", "1");
    ASSERT_EQ(told.size(), 1U);
    EXPECT_EQ(told[0].rfind("3 0 Regular expression error, regex \"/keep/(\" not valid - ", 0), 0U)
        << told[0];
}

class CentralPersistence : public Persistence {
protected:
    /// Starts persisting; the store answers at once with `first`.
    void start(const ChangeSetType& first, const Status& status, const std::string& dir = "") {
        auto& persistence = handler();
        persistence.setNodeDataHndlr(m_store);
        m_store->onObserve = [this, first, status] { m_store->callback(first, status); };
        persistence.init(true, dir);
        m_store->onObserve = nullptr;
    }

    std::shared_ptr<FakeCentralStore> m_store = std::make_shared<FakeCentralStore>();
};

TEST_F(CentralPersistence, TheCentralContentReplacesTheLocalOne) {
    NodeDataFileHndlr().saveChangeSet(TestKit::newKeys({"/keep/local"}), m_dir);
    start(TestKit::newKeys({"/keep/central"}), Status(), m_dir);
    EXPECT_THAT(content(), ElementsAre("/keep/central=/keep/central"));
    EXPECT_THAT(files(m_dir), ElementsAre("/keep/central=/keep/central"));
    EXPECT_THAT(m_store->calls, ElementsAre("observe |mb/0/cap")) << "nothing is sent back";
}

TEST_F(CentralPersistence, SendsEverythingFirstAndPatchesAfterwards) {
    start(TestKit::newKeys({"/keep/a"}), Status());
    m_store->calls.clear();
    set("/keep/b", "2");
    EXPECT_THAT(m_store->calls,
                ElementsAre("|mb/0/cap|full", "  /keep/a: null -> /keep/a", "  /keep/b: null -> 2",
                            // The new state id is a change of its own.
                            "id1|mb/0/cap|patch", "  /__csid: null -> id1"));
    EXPECT_THAT(content(), ElementsAre("/__csid=id1", "/keep/a=/keep/a", "/keep/b=2"));
}

TEST_F(CentralPersistence, KeepsTheIdQuietlyWhenThereIsNothingToSend) {
    LogCapture log("PersistenceHndlr");
    start({}, Status());
    m_store->answers.push_back({Status(), "one"});
    m_store->answers.push_back({Status(ProtoStatus::ALREADY_EXISTS, ""), ""});
    set("/keep/a", "1");
    EXPECT_THAT(content(), ElementsAre("/__csid=one", "/keep/a=1"));
    EXPECT_THAT(log.textsAt(spdlog::level::warn), IsEmpty());
    m_store->calls.clear();
    m_store->answers.push_back({Status(ProtoStatus::ALREADY_EXISTS, ""), ""});
    set("/keep/a", "2");
    EXPECT_THAT(m_store->calls, ElementsAre("one|mb/0/cap|patch", "  /keep/a: 1 -> 2"));
}

TEST_F(CentralPersistence, WarnsOfAFailureAndStillWritesTheFile) {
    LogCapture log("PersistenceHndlr");
    start({}, Status(), m_dir);
    m_store->answers.push_back({Status(ProtoStatus::UNAVAILABLE, "away"), ""});
    set("/keep/a", "1");
    EXPECT_THAT(log.textsAt(spdlog::level::warn),
                ElementsAre("Store node data centrally failed - status "
                            "statusCode: UNAVAILABLE\nerrorMessage: \"away\"\n"));
    EXPECT_THAT(files(m_dir), ElementsAre("/keep/a=1"));
    m_store->calls.clear();
    m_store->answers.push_back({Status(ProtoStatus::ALREADY_EXISTS, ""), ""});
    set("/keep/b", "2");
    EXPECT_THAT(m_store->calls,
                ElementsAre("|mb/0/cap|full", "  /keep/a: null -> 1", "  /keep/b: null -> 2"))
        << "a failed full send is tried in full again";
}

TEST_F(CentralPersistence, TheFirstAnswerReleasesTheStartWhateverItSays) {
    set("/keep/a", "1");
    start(TestKit::newKeys({"/keep/x"}), Status(ProtoStatus::CANCELLED, "gone"));
    EXPECT_THAT(content(), ElementsAre("/keep/a=1"));
    m_store->calls.clear();
    set("/keep/b", "2");
    EXPECT_THAT(m_store->calls, IsEmpty()) << "the store has not said what it holds";
    m_store->callback(TestKit::newKeys({"/keep/x"}), Status());
    EXPECT_THAT(content(), ElementsAre("/keep/x=/keep/x"));
}

TEST_F(CentralPersistence, LetsGoOfTheCapabilitysLockWhileItWaits) {
    std::mutex capabilityMutex;
    m_lock = std::make_unique<std::unique_lock<std::mutex>>(capabilityMutex);
    auto& persistence = handler();
    persistence.setNodeDataHndlr(m_store);
    std::thread client;
    m_store->onObserve = [&] {
        client = std::thread([&] {
            const std::lock_guard<std::mutex> lock(capabilityMutex);
            m_store->callback(TestKit::newKeys({"/keep/x"}), Status());
        });
    };
    persistence.init(true, "");
    client.join();
    EXPECT_TRUE(m_lock->owns_lock());
    m_lock.reset();
    EXPECT_THAT(content(), ElementsAre("/keep/x=/keep/x"));
}

}  // namespace
}  // namespace Hox::ObserverTree
