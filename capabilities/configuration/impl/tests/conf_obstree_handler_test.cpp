#include "hox/configuration/conf_obstree_handler.h"

#include <gmock/gmock.h>
#include <grpcpp/create_channel.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "configuration_store.h"
#include "hox/testing/log_capture.h"
#include "state_monitoring.grpc.pb.h"

namespace Hox::Capability::Configuration {
namespace {

using Hox::ObserverTree::ProtoStatus;
using Hox::ObserverTree::Status;
using Hox::Testing::LogCapture;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

TEST_F(ConfigurationStore, AcceptsTheFirstUpdateOfASliceWithAnyStateId) {
    LogCapture log;
    update(Update("tuner", "whatever").set("/a/b", "1"));
    EXPECT_THAT(content(), ElementsAre("/sys/conf/mb/0/tuner/__csid", "/sys/conf/mb/0/tuner/a/b"));
    EXPECT_THAT(log.textsAt(spdlog::level::info),
                ElementsAre("Updating system configuration for /sys/conf/mb/0/tuner"));
}

TEST_F(ConfigurationStore, LogsEachValueAtDebugLevel) {
    LogCapture log;
    update(Update("tuner").set("/a", "1").remove("/b"));
    EXPECT_THAT(log.textsAt(spdlog::level::debug),
                Contains("Updating system configuration for /sys/conf/mb/0/tuner/a - " +
                         packed("1").DebugString()));
    EXPECT_THAT(log.textsAt(spdlog::level::debug),
                Not(Contains(HasSubstr("/sys/conf/mb/0/tuner/b"))));
}

TEST_F(ConfigurationStore, TakesAnUpdateAlsoWhenTheStateMonitorCannotBeReached) {
    const auto channel = grpc::CreateChannel("127.0.0.1:1", grpc::InsecureChannelCredentials());
    m_handler->setStateTree(Hox::ObserverTree::AsyncGrpcProxyObsTreeBuilder()
                                .createProxyObsTree<StateMonitoring::Api::StateMonitoringService>(
                                    channel, std::make_shared<std::mutex>(), nullptr));
    update(Update("tuner").set("/a", "1"));
    EXPECT_THAT(content(), ElementsAre("/sys/conf/mb/0/tuner/__csid", "/sys/conf/mb/0/tuner/a"));
}

TEST_F(ConfigurationStore, RefusesAStaleStateIdAndChangesNothing) {
    const auto id = update(Update("tuner").set("/a", "1"));
    LogCapture log;
    const Status status = tryUpdate(Update("tuner", "stale").full().set("/b", "2"));
    EXPECT_EQ(status.statusCode(), ProtoStatus::FAILED_PRECONDITION);
    EXPECT_EQ(status.errorMessage(), "ConfState identifier didnt match");
    EXPECT_EQ(m_stateId, "");
    EXPECT_THAT(log.textsAt(spdlog::level::warn),
                ElementsAre("Configuration state id did not match"));
    EXPECT_THAT(content(), ElementsAre("/sys/conf/mb/0/tuner/__csid", "/sys/conf/mb/0/tuner/a"));
    EXPECT_NE(update(Update("tuner", id).set("/b", "2")), id);
}

TEST_F(ConfigurationStore, PatchesASlice) {
    const auto id = update(Update("tuner").set("/a", "1").set("/b", "2"));
    update(Update("tuner", id).remove("/a").remove("/never").set("/c", "3"));
    EXPECT_THAT(content(), ElementsAre("/sys/conf/mb/0/tuner/__csid", "/sys/conf/mb/0/tuner/b",
                                       "/sys/conf/mb/0/tuner/c"));
}

TEST_F(ConfigurationStore, EmptiesASliceButForItsNewStateId) {
    const auto id = update(Update("tuner").set("/a", "1"));
    update(Update("tuner", id).full());
    EXPECT_THAT(content(), ElementsAre("/sys/conf/mb/0/tuner/__csid"));
}

TEST_F(ConfigurationStore, TakesEverySliceAwayThatStartsWithTheSameText) {
    update(Update("network").set("/a", "1"));
    const auto id = update(Update("net").set("/b", "2"));
    update(Update("net", id).full().set("/c", "3"));
    EXPECT_THAT(content(), ElementsAre("/sys/conf/mb/0/net/__csid", "/sys/conf/mb/0/net/c"));
}

TEST_F(ConfigurationStore, RefusesInvalidKeysAndChangesNothing) {
    const auto id = update(Update("tuner").set("/a", "1"));
    const auto before = content();
    for (const char* key : {"", "x", "/", "/a/", "//a", "/a//b", "/a/*", "/.x.", "/a/.x./b"}) {
        const Status status = tryUpdate(Update("tuner", id).full().set("/ok", "2").set(key, "3"));
        EXPECT_EQ(status.statusCode(), ProtoStatus::FAILED_PRECONDITION) << key;
        EXPECT_THAT(status.errorMessage(), StartsWith("PathError: ")) << key;
        EXPECT_EQ(content(), before) << key;
    }
    Update removal("tuner", id);
    EXPECT_FALSE(tryUpdate(removal.remove("x")).isOk());
    EXPECT_EQ(content(), before);
}

TEST_F(ConfigurationStore, RefusesASliceWhoseNameMakesNoKey) {
    for (const char* capability : {"", "a*", ".x.", "a/"}) {
        const Status status = tryUpdate(Update(capability).set("/a", "1"));
        EXPECT_EQ(status.statusCode(), ProtoStatus::FAILED_PRECONDITION) << capability;
        EXPECT_THAT(status.errorMessage(), StartsWith("PathError: ")) << capability;
        EXPECT_THAT(tryUpdate(Update(capability)).errorMessage(), StartsWith("PathError: "))
            << capability;
    }
    EXPECT_THAT(content(), IsEmpty());
}

TEST_F(ConfigurationStore, RefusesKeysThatNoFileCanHold) {
    const std::string tooLong = "/" + std::string(256, 'x');
    for (const auto& [key, shown] : {std::pair{std::string("/data"), std::string("/data")},
                                     {"/a/data~", "/a/data~"},
                                     {tooLong, tooLong},
                                     {"/a\nb", "/a\\nb"},
                                     {"/a\rb", "/a\\rb"},
                                     {std::string("/a\0b", 4), "/a\\0b"}}) {
        const Status status = tryUpdate(Update("tuner").set("/ok", "1").set(key, "2"));
        EXPECT_EQ(status.statusCode(), ProtoStatus::INVALID_ARGUMENT) << shown;
        EXPECT_THAT(status.errorMessage(), HasSubstr("/sys/conf/mb/0/tuner" + shown));
        EXPECT_THAT(content(), IsEmpty());
    }
    EXPECT_TRUE(tryUpdate(Update("tuner").set("/" + std::string(255, 'x'), "1")).isOk());
}

TEST_F(ConfigurationStore, RefusesASliceWhoseNameNoFileCanHold) {
    const std::string tooLong(256, 'x');
    for (const auto& [capability, shown] : {std::pair{std::string("data"), std::string("data")},
                                            {"data~", "data~"},
                                            {tooLong, tooLong},
                                            {"a\nb", "a\\nb"}}) {
        for (const auto& request : {Update(capability).set("/a", "1"), Update(capability)}) {
            const Status status = tryUpdate(request);
            EXPECT_EQ(status.statusCode(), ProtoStatus::INVALID_ARGUMENT) << shown;
            EXPECT_THAT(status.errorMessage(), HasSubstr("/sys/conf/mb/0/" + shown + "/"));
            EXPECT_THAT(content(), IsEmpty());
        }
    }
    EXPECT_TRUE(tryUpdate(Update(std::string(255, 'x'))).isOk());
}

TEST_F(ConfigurationStore, IgnoresAllButTheFirstPairOfAKey) {
    Update request("tuner");
    request.set("/a", "1").set("/a", "2");
    update(request);
    std::vector<std::string> told;
    const auto handle = observe("tuner", "", told);
    EXPECT_THAT(told, ElementsAre("0 /__csid /a=1"));
}

TEST_F(ConfigurationStore, TellsAnObserverNothingEverythingOrThatItIsUpToDate) {
    std::vector<std::string> never;
    {
        const auto handle = observe("tuner", "x", never);
        EXPECT_THAT(never, ElementsAre("0"));
    }
    const auto id = update(Update("tuner").set("/a", "1").set("/b/c", "2"));
    update(Update("other").set("/x", "9"));
    std::vector<std::string> stale;
    {
        const auto handle = observe("tuner", "x", stale);
        EXPECT_THAT(stale, ElementsAre("0 /__csid /a=1 /b/c=2"));
    }
    std::vector<std::string> current;
    const auto handle = observe("tuner", id, current);
    EXPECT_THAT(current, ElementsAre("6"));
}

/// The root of a slice is only a text prefix, also when reading.
TEST_F(ConfigurationStore, TellsAnObserverAlsoOfSlicesThatStartWithTheSameText) {
    update(Update("net").set("/a", "1"));
    update(Update("network").set("/y", "2"));
    update(Update("other").set("/z", "3"));
    Api::ObserveCapConfReq request;
    *request.mutable_confid() = Update("net").request.confid();
    request.set_lastcapconfstateid("stale");
    std::vector<std::string> keys;
    const auto handle = m_tree->observe<Api::ObserveCapConfReq>(
        "/sys/conf", request,
        [&keys](const Hox::ObserverTree::ChangeSetType& changes, const Status& status) {
            EXPECT_TRUE(status.isOk());
            for (const auto& change : changes) {
                keys.push_back(change.first);
            }
        },
        0);
    EXPECT_THAT(keys, ElementsAre("/__csid", "/a", "work/__csid", "work/y"));
}

TEST_F(ConfigurationStore, TellsNobodyOfAnUpdate) {
    std::vector<std::string> own;
    std::vector<std::string> other;
    const auto first = observe("tuner", "", own);
    const auto second = observe("other", "", other);
    update(Update("tuner").set("/a", "1"));
    EXPECT_THAT(own, ElementsAre("0"));
    EXPECT_THAT(other, ElementsAre("0"));
}

TEST_F(ConfigurationStore, LoadsWhatHasBeenSavedAndNothingElse) {
    update(Update("tuner").set("/lost", "1"));
    Hox::ObserverTree::ChangeSetType saved;
    saved["/sys/conf/mb/0/tuner/a"] = {
        {std::make_shared<const Hox::ObserverTree::DataTreeVal>(packed("kept")), nullptr}};
    saved["/elsewhere"] = saved.begin()->second;
    Hox::ObserverTree::NodeDataFileHndlr().saveChangeSet(saved, m_dir / "conf");
    start();
    EXPECT_THAT(content(), ElementsAre("/sys/conf/mb/0/tuner/a"));
    update(Update("tuner", "a slice without a state id takes any").set("/b", "2"));
}

TEST_F(ConfigurationStore, MakesItsDirectory) {
    EXPECT_TRUE(std::filesystem::is_directory(m_dir / "conf"));
}

TEST_F(ConfigurationStore, OwnerThatIsBackBeforeItHasLeftIsToldOnceItHas) {
    update(Update("tuner").set("/a", "1"));
    std::vector<std::string> told;
    std::vector<std::string> toldAgain;
    std::unique_lock<std::mutex> lock(*m_mutex);
    auto former = observe("tuner", "", told);
    ASSERT_THAT(told, ElementsAre("0 /__csid /a=1"));
    const auto again = observe("tuner", "", toldAgain);
    EXPECT_THAT(toldAgain, testing::IsEmpty());
    former.reset();
    EXPECT_THAT(toldAgain, ElementsAre("0 /__csid /a=1"));
}

using ConfigurationStoreDeathTest = ConfigurationStore;

TEST_F(ConfigurationStoreDeathTest, EndsTheProcessOnAnEntryWithoutPairs) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Update request("tuner");
    (*request.request.mutable_capconfchangeset()->mutable_node_change_map())["/a"];
    EXPECT_DEATH(tryUpdate(request), "CHECK failed: \\(index\\) < \\(current_size_\\): ");
}

}  // namespace
}  // namespace Hox::Capability::Configuration
