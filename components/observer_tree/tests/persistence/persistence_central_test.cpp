#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "hox/linutils/files.h"
#include "hox/testing/log_capture.h"
#include "hox/testing/wait_until.h"
#include "persistence/persistence_kit.h"

namespace Hox::ObserverTree {
namespace {

using Hox::Testing::LogCapture;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;
using TestKit::newKeys;
using TestKit::Observations;
using TestKit::value;

class CentralPersistence : public TestKit::Persistence {
protected:
    /// Starts persisting; the store answers immediately with `first`.
    void start(const ChangeSetType& first, const Status& status, const std::string& dir = "") {
        auto& persistence = handler();
        persistence.setNodeDataHndlr(m_store);
        m_store->onObserve = [this, first, status] { m_store->callback(first, status); };
        persistence.init(true, dir);
        m_store->onObserve = nullptr;
    }

    std::filesystem::path unstoredFile() const { return m_dir.native() + ".unstored"; }

    static StoreNodeDataReturn unavailable() {
        return {Status(ProtoStatus::UNAVAILABLE, "gone"), ""};
    }

    std::shared_ptr<TestKit::FakeCentralStore> m_store =
        std::make_shared<TestKit::FakeCentralStore>();
};

TEST_F(CentralPersistence, TheCentralContentReplacesTheLocalOne) {
    NodeDataFileHndlr().saveChangeSet(newKeys({"/keep/local"}), m_dir);
    start(newKeys({"/keep/central"}), Status(), m_dir);
    EXPECT_THAT(content(), ElementsAre("/keep/central=/keep/central"));
    EXPECT_THAT(files(m_dir), ElementsAre("/keep/central=/keep/central"));
    EXPECT_THAT(m_store->calls, ElementsAre("observe |mb/0/cap")) << "nothing is sent back";
}

TEST_F(CentralPersistence, ObserversSeeTheOldContentGoAndTheNewOneCome) {
    ChangeSetType first = newKeys({"/keep/a", "/keep/b"});
    first["/__csid"] = {ChangeSetMapVal{value("c1"), nullptr}};
    start(first, Status());
    Observations seen;
    const auto handle = observe(".*", seen);
    m_store->callback(newKeys({"/keep/b", "/keep/c"}), Status());
    EXPECT_THAT(
        seen.calls(),
        ElementsAre("/__csid: c1 -> null, /keep/a: /keep/a -> null, /keep/b: /keep/b -> null",
                    "/keep/b: null -> /keep/b, /keep/c: null -> /keep/c"));
}

TEST_F(CentralPersistence, NobodyReadsTheTreeBetweenTheOldContentAndTheNew) {
    constexpr int rounds = 20;
    ChangeSetType central = newKeys({"/keep/a"});
    // It takes a while to write, which is long enough for a reader that waits.
    central["/keep/large"] = {ChangeSetMapVal{value(std::string(8000000, 'x')), nullptr}};
    start(central, Status());
    std::atomic<bool> isOver{false};
    std::atomic<int> reads{0};
    auto reader = std::async(std::launch::async, [this, &isOver, &reads] {
        int missed = 0;
        for (; !isOver; ++reads) {
            missed += read("/keep/a").changeset().node_change_map().empty() ? 1 : 0;
        }
        return missed;
    });
    int round = 0;
    EXPECT_TRUE(Hox::Testing::waitUntil([&] {
        m_store->callback(central, Status());
        return ++round >= rounds && reads >= rounds;
    }));
    isOver = true;
    EXPECT_EQ(reader.get(), 0);
}

TEST_F(CentralPersistence, SendsEverythingFirstAndPatchesAfterwards) {
    start(newKeys({"/keep/a"}), Status());
    m_store->calls.clear();
    set("/keep/b", "2");
    EXPECT_THAT(m_store->calls,
                ElementsAre("|mb/0/cap|full", "  /keep/a: null -> /keep/a", "  /keep/b: null -> 2",
                            // The new state id is a separate change.
                            "id1|mb/0/cap|patch", "  /__csid: null -> id1"));
    EXPECT_THAT(content(), ElementsAre("/__csid=id1", "/keep/a=/keep/a", "/keep/b=2"));
}

TEST_F(CentralPersistence, WritesEverythingToFilesAsWellWhenItSendsEverything) {
    start(newKeys({"/keep/a"}), Status(), m_dir);
    std::filesystem::remove_all(m_dir / "keep/a");
    set("/keep/b", "2");
    EXPECT_THAT(files(m_dir), ElementsAre("/__csid=id1", "/keep/a=/keep/a", "/keep/b=2"));
}

TEST_F(CentralPersistence, StoresChangesIfTheStoreHasTheSameContent) {
    start({}, Status(ProtoStatus::ALREADY_EXISTS, ""));
    set("/keep/a", "1");
    EXPECT_THAT(m_store->calls, Contains("|mb/0/cap|full"));
    EXPECT_THAT(content(), ElementsAre("/__csid=id1", "/keep/a=1"));
}

TEST_F(CentralPersistence, SendsEverythingAgainAfterALoss) {
    start({}, Status());
    set("/keep/a", "1");
    m_store->calls.clear();
    m_store->callback({}, Status(ProtoStatus::CANCELLED, "Some error occured!"));
    EXPECT_THAT(content(), ElementsAre("/__csid=id1", "/keep/a=1")) << "a loss changes nothing";
    set("/keep/b", "2");
    EXPECT_THAT(m_store->calls,
                ElementsAre("id1|mb/0/cap|full", "  /__csid: null -> id1", "  /keep/a: null -> 1",
                            "  /keep/b: null -> 2", "id2|mb/0/cap|patch", "  /__csid: id1 -> id2"));
}

TEST_F(CentralPersistence, SendsEverythingIfAChangeWasNotStoredAndNobodyElseHasChangedTheStore) {
    start({}, Status());
    m_store->answers.push_back({Status(ProtoStatus::UNAVAILABLE, "gone"), ""});
    set("/keep/a", "1");
    m_store->calls.clear();
    m_store->callback({}, Status(ProtoStatus::CANCELLED, "Some error occured!"));
    m_store->callback({}, Status(ProtoStatus::ALREADY_EXISTS, ""));
    EXPECT_THAT(m_store->calls, Contains("|mb/0/cap|full"));
    m_store->calls.clear();
    m_store->callback({}, Status(ProtoStatus::ALREADY_EXISTS, ""));
    EXPECT_THAT(m_store->calls, IsEmpty()) << "the store has everything";
}

TEST_F(CentralPersistence, SendsEverythingToAStoreThatHasLostIt) {
    start({}, Status());
    set("/keep/a", "1");
    m_store->callback({}, Status(ProtoStatus::CANCELLED, "Some error occured!"));
    m_store->calls.clear();
    m_store->callback({}, Status());
    EXPECT_THAT(m_store->calls, Contains("id1|mb/0/cap|full"));
    EXPECT_THAT(content(), ElementsAre("/__csid=id2", "/keep/a=1"));
}

TEST_F(CentralPersistence, IsEmptiedByAStoreThatIsThere) {
    start({}, Status());
    set("/keep/a", "1");
    m_store->callback({}, Status());
    EXPECT_THAT(content(), IsEmpty());
}

TEST_F(CentralPersistence, WaitsForTheFirstAnswerUntilTheProcessEnds) {
    auto& persistence = handler();
    int questions = 0;
    persistence.setNodeDataHndlr(m_store, [&questions] { return ++questions == 2; });
    persistence.init(true, "");
    EXPECT_EQ(questions, 2);
    set("/keep/a", "1");
    EXPECT_THAT(m_store->calls, ElementsAre("observe |mb/0/cap"))
        << "nothing is known of the store";
}

TEST_F(CentralPersistence, EndsTheObservationOnRequest) {
    start({}, Status());
    EXPECT_EQ(m_store->endedObservings, 0);
    m_handler->endCentralObserving();
    EXPECT_EQ(m_store->endedObservings, 1);
}

TEST_F(CentralPersistence, RemovesTheFileOfAKeyWhoseRemovalMadeItSendEverything) {
    start(newKeys({"/keep/a", "/keep/b"}), Status(), m_dir);
    m_store->calls.clear();
    remove("/keep/a");
    EXPECT_THAT(m_store->calls, ElementsAre("|mb/0/cap|full", "  /keep/b: null -> /keep/b",
                                            "id1|mb/0/cap|patch", "  /__csid: null -> id1"));
    EXPECT_THAT(files(m_dir), ElementsAre("/__csid=id1", "/keep/b=/keep/b"));
    remove("/keep/b");
    EXPECT_THAT(files(m_dir), ElementsAre("/__csid=id2"));
}

TEST_F(CentralPersistence, TellsTheStoreOfARemovalThatLeavesNothing) {
    start(newKeys({"/keep/a"}), Status(), m_dir);
    m_store->calls.clear();
    remove("/keep/a");
    EXPECT_THAT(m_store->calls, ElementsAre("|mb/0/cap|full", "  /keep/a: /keep/a -> null",
                                            "id1|mb/0/cap|patch", "  /__csid: null -> id1"));
    EXPECT_THAT(files(m_dir), ElementsAre("/__csid=id1"));
}

TEST_F(CentralPersistence, TellsTheStoreWhenItIsBackOfARemovalThatCouldNotBeStored) {
    start({}, Status(), m_dir);
    set("/keep/a", "1");
    m_store->answers.push_back(unavailable());
    remove("/keep/a");
    EXPECT_THAT(files(m_dir), ElementsAre("/__csid=id1"));
    m_store->callback({}, Status(ProtoStatus::CANCELLED, "Some error occured!"));
    m_store->calls.clear();
    m_store->callback({}, Status(ProtoStatus::ALREADY_EXISTS, ""));
    EXPECT_THAT(m_store->calls, ElementsAre("id1|mb/0/cap|full", "  /__csid: null -> id1",
                                            "  /keep/a: null -> null", "id2|mb/0/cap|patch",
                                            "  /__csid: id1 -> id2"));
}

TEST_F(CentralPersistence, SendsWhatCouldNotBeStoredWithTheNextChange) {
    start({}, Status());
    set("/keep/a", "1");
    m_store->answers.push_back(unavailable());
    set("/keep/b", "2");
    m_store->calls.clear();
    set("/keep/c", "3");
    EXPECT_THAT(m_store->calls, IsSupersetOf({"id1|mb/0/cap|full", "  /keep/b: null -> 2",
                                              "  /keep/c: null -> 3"}));
}

TEST_F(CentralPersistence, RemembersInAFileWhatCouldNotBeStored) {
    start({}, Status(), m_dir);
    m_store->answers = {unavailable(), unavailable()};
    set("/keep/b", "2");
    set("/keep/a", "1");
    const std::string two("/keep/a\0/keep/b\0", 16);
    EXPECT_EQ(LinuxCppUtil::readFile(unstoredFile()), two);
    set("/keep/c", "3");
    EXPECT_FALSE(std::filesystem::exists(unstoredFile()));
    EXPECT_THAT(files(m_dir), ElementsAre("/__csid=id1", "/keep/a=1", "/keep/b=2", "/keep/c=3"));
}

TEST_F(CentralPersistence, RemembersWhatCouldNotBeStoredWithoutAnyFileOfAValue) {
    start(newKeys({"/keep/a"}), Status(), m_dir);
    m_store->callback({}, Status());
    EXPECT_FALSE(std::filesystem::exists(m_dir));
    m_store->answers.push_back(unavailable());
    set("/keep/a", "1");
    EXPECT_THAT(files(m_dir), ElementsAre("/keep/a=1"));
    EXPECT_TRUE(std::filesystem::exists(unstoredFile()));
}

TEST_F(CentralPersistence, ForgetsARefusedChange) {
    start({}, Status(), m_dir);
    m_store->answers.push_back({Status(ProtoStatus::FAILED_PRECONDITION, "other state"), ""});
    set("/keep/a", "1");
    EXPECT_FALSE(std::filesystem::exists(unstoredFile()));
    m_store->callback({}, Status());
    EXPECT_THAT(content(), IsEmpty()) << "the store's content replaces it";
}

TEST_F(CentralPersistence, DoesNotSendAgainAndAgainWhatTheStoreRefuses) {
    start({}, Status(), m_dir);
    m_store->answers = {unavailable(), {Status(ProtoStatus::FAILED_PRECONDITION, "bad key"), ""}};
    set("/keep/a", "1");
    m_store->callback({}, Status(ProtoStatus::CANCELLED, "Some error occured!"));
    m_store->callback({}, Status(ProtoStatus::ALREADY_EXISTS, ""));
    EXPECT_FALSE(std::filesystem::exists(unstoredFile()));
    m_store->calls.clear();
    m_store->callback({}, Status(ProtoStatus::ALREADY_EXISTS, ""));
    EXPECT_THAT(m_store->calls, IsEmpty());
}

TEST_F(CentralPersistence, RemembersAChangeThatTheStoreNeverTakes) {
    start({}, Status(), m_dir);
    set("/keep/a", "1");
    m_store->answers.push_back({Status(ProtoStatus::RESOURCE_EXHAUSTED, "too large"), ""});
    set("/keep/b", "2");
    m_store->calls.clear();
    set("/keep/c", "3");
    EXPECT_THAT(m_store->calls, Contains("id1|mb/0/cap|patch")) << "later ones get through";
    EXPECT_EQ(LinuxCppUtil::readFile(unstoredFile()), std::string("/keep/b\0", 8));
    set("/keep/b", "4");
    EXPECT_FALSE(std::filesystem::exists(unstoredFile()));
}

TEST_F(CentralPersistence, StoresAgainAfterALossBeforeTheFirstAnswer) {
    ChangeSetType saved = newKeys({"/keep/a"});
    saved["/__csid"] = {ChangeSetMapVal{value("7"), nullptr}};
    NodeDataFileHndlr().saveChangeSet(saved, m_dir);
    start({}, Status(ProtoStatus::CANCELLED, "Some error occured!"), m_dir);
    m_store->callback({}, Status());
    m_store->calls.clear();
    set("/keep/b", "2");
    EXPECT_THAT(m_store->calls, Contains("  /keep/b: null -> 2"));
}

TEST_F(CentralPersistence, StoresTheFirstSettingOfAllThoughTheStoreWasLostMeanwhile) {
    start({}, Status(), m_dir);
    m_store->answers.push_back(unavailable());
    set("/keep/a", "1");
    m_store->callback({}, Status(ProtoStatus::CANCELLED, "Some error occured!"));
    m_store->calls.clear();
    m_store->callback({}, Status());
    EXPECT_THAT(m_store->calls, IsSupersetOf({"|mb/0/cap|full", "  /keep/a: null -> 1"}));
    EXPECT_THAT(content(), ElementsAre("/__csid=id1", "/keep/a=1"));
}

TEST_F(CentralPersistence, StoresAfterARestartWhatCouldNotBeStoredBefore) {
    NodeDataFileHndlr().saveChangeSet(newKeys({"/keep/a"}), m_dir);
    LinuxCppUtil::writeFile(unstoredFile(), std::string("/keep/a\0/keep/gone\0", 19));
    start({}, Status(ProtoStatus::ALREADY_EXISTS, ""), m_dir);
    EXPECT_THAT(m_store->calls, Contains("|mb/0/cap|full"));
    EXPECT_THAT(m_store->calls, Contains("  /keep/a: null -> /keep/a"));
    EXPECT_FALSE(std::filesystem::exists(unstoredFile()));
}

TEST_F(CentralPersistence, StoresAfterARestartARemovalThatLeftNothing) {
    std::filesystem::create_directories(m_dir);
    LinuxCppUtil::writeFile(unstoredFile(), std::string("/keep/gone\0", 11));
    start({}, Status(ProtoStatus::ALREADY_EXISTS, ""), m_dir);
    EXPECT_THAT(m_store->calls, IsSupersetOf({"|mb/0/cap|full", "  /keep/gone: null -> null"}));
}

TEST_F(CentralPersistence, ForgetsWhatCouldNotBeStoredWhenTheStoreHasOtherContent) {
    start({}, Status(), m_dir);
    m_store->answers.push_back(unavailable());
    set("/keep/a", "1");
    EXPECT_TRUE(std::filesystem::exists(unstoredFile()));
    m_store->callback(newKeys({"/keep/x"}), Status());
    EXPECT_FALSE(std::filesystem::exists(unstoredFile()));
    EXPECT_THAT(content(), ElementsAre("/keep/x=/keep/x"));
}

TEST_F(CentralPersistence, SendsNothingBackOfALaterDelivery) {
    start({}, Status());
    m_store->calls.clear();
    m_store->callback(newKeys({"/keep/x"}), Status());
    EXPECT_THAT(m_store->calls, IsEmpty());
    EXPECT_THAT(content(), ElementsAre("/keep/x=/keep/x"));
    m_store->answers.push_back({Status(ProtoStatus::ALREADY_EXISTS, ""), ""});
    set("/keep/y", "y");
    EXPECT_THAT(m_store->calls, ElementsAre("|mb/0/cap|full", "  /keep/x: null -> /keep/x",
                                            "  /keep/y: null -> y"));
}

TEST_F(CentralPersistence, AsksAndSendsWithTheLastStateId) {
    ChangeSetType saved = newKeys({"/keep/a"});
    saved["/__csid"] = {ChangeSetMapVal{value("7"), nullptr}};
    NodeDataFileHndlr().saveChangeSet(saved, m_dir);
    ChangeSetType central;
    central["/__csid"] = {ChangeSetMapVal{value("c5"), nullptr}};
    start(central, Status(), m_dir);
    EXPECT_THAT(m_store->calls, ElementsAre("observe 7|mb/0/cap"));

    m_store->calls.clear();
    set("/keep/b", "2");
    EXPECT_THAT(m_store->calls,
                ElementsAre("c5|mb/0/cap|full", "  /__csid: null -> c5", "  /keep/b: null -> 2",
                            "id1|mb/0/cap|patch", "  /__csid: c5 -> id1"));

    m_store->calls.clear();
    m_store->callback(newKeys({"/keep/c"}), Status());
    m_store->answers.push_back({Status(ProtoStatus::ALREADY_EXISTS, ""), ""});
    set("/keep/d", "4");
    EXPECT_THAT(m_store->calls, ElementsAre("|mb/0/cap|patch", "  /keep/d: null -> 4"))
        << "the store has told of no state id";
}

TEST_F(CentralPersistence, KeepsTheIdQuietlyWhenThereIsNothingToSend) {
    const LogCapture log("PersistenceHndlr");
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
    const LogCapture log("PersistenceHndlr");
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
    start(newKeys({"/keep/x"}), Status(ProtoStatus::CANCELLED, "gone"));
    EXPECT_THAT(content(), ElementsAre("/keep/a=1"));
    m_store->calls.clear();
    set("/keep/b", "2");
    EXPECT_THAT(m_store->calls, IsEmpty()) << "the store has not said what it holds";
    m_store->callback(newKeys({"/keep/x"}), Status());
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
            m_store->callback(newKeys({"/keep/x"}), Status());
        });
    };
    persistence.init(true, "");
    client.join();
    EXPECT_TRUE(m_lock->owns_lock());
    m_lock.reset();
    EXPECT_THAT(content(), ElementsAre("/keep/x=/keep/x"));
}

TEST_F(CentralPersistence, HasTheCapabilitysLockAgainWhenTheStoreFails) {
    std::mutex capabilityMutex;
    m_lock = std::make_unique<std::unique_lock<std::mutex>>(capabilityMutex);
    auto& persistence = handler();
    persistence.setNodeDataHndlr(m_store);
    m_store->onObserve = [] { throw std::runtime_error("no store"); };
    EXPECT_THROW(persistence.init(true, ""), std::runtime_error);
    EXPECT_TRUE(m_lock->owns_lock());
    m_lock.reset();
}

TEST_F(CentralPersistence, AsksWithTheStateIdOfItsStartWhateverArrivesMeanwhile) {
    std::mutex capabilityMutex;
    m_lock = std::make_unique<std::unique_lock<std::mutex>>(capabilityMutex);
    auto& persistence = handler();
    persistence.setNodeDataHndlr(m_store);
    // The store itself checks that its argument does not change.
    m_store->onObserve = [&] {
        std::thread([&] {
            const std::lock_guard<std::mutex> lock(capabilityMutex);
            ChangeSetType central;
            central["/__csid"] = {ChangeSetMapVal{value("arrived meanwhile"), nullptr}};
            m_store->callback(central, Status());
        }).join();
    };
    persistence.init(true, "");
    m_lock.reset();
    EXPECT_THAT(m_store->calls, ElementsAre("observe |mb/0/cap"));
    EXPECT_THAT(content(), ElementsAre("/__csid=arrived meanwhile"));
}

TEST_F(CentralPersistence, ObservesTheStoreAcrossAStopAndAnewFromTheNextStart) {
    start(newKeys({"/keep/a"}), Status(), m_dir);
    m_handler->stopPersistingObsTree();
    EXPECT_EQ(m_store->endedObservings, 0);
    m_store->callback(newKeys({"/keep/b"}), Status());
    EXPECT_THAT(content(), ElementsAre("/keep/b=/keep/b"));
    EXPECT_THAT(files(m_dir), ElementsAre("/keep/a=/keep/a")) << "nothing is stored meanwhile";

    m_store->onObserve = [this] {
        EXPECT_EQ(m_store->endedObservings, 1) << "one observation at a time";
        m_store->callback(newKeys({"/keep/c"}), Status());
    };
    m_handler->startPersistingObsTree(m_dir, false);
    EXPECT_EQ(m_store->endedObservings, 1);
    EXPECT_THAT(content(), ElementsAre("/keep/c=/keep/c"));
    EXPECT_THAT(files(m_dir), ElementsAre("/keep/a=/keep/a", "/keep/c=/keep/c"));
}

TEST_F(CentralPersistence, StoresWhatIsChangedWhileItsObservingEnds) {
    start({}, Status(), m_dir);
    EXPECT_EQ(m_store->endedObservings, 0);
    m_store->onEndOfObserving = [this] { set("/keep/z", "1"); };
    m_handler.reset();
    EXPECT_EQ(m_store->endedObservings, 1);
    EXPECT_THAT(files(m_dir), ElementsAre("/__csid=id1", "/keep/z=1"));
}

}  // namespace
}  // namespace Hox::ObserverTree
