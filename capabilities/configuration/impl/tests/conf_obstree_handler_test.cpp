#include "hox/configuration/conf_obstree_handler.h"

#include <gmock/gmock.h>
#include <google/protobuf/wrappers.pb.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "hox/testing/log_capture.h"
#include "hox/testing/temp_dir.h"

namespace Hox::Capability::Configuration {
namespace {

using google::protobuf::StringValue;
using Hox::ObserverTree::ChangeSetType;
using Hox::ObserverTree::ObserverTree;
using Hox::ObserverTree::ProtoStatus;
using Hox::ObserverTree::Status;
using Hox::ObserverTree::UnaryOps;
using Hox::Testing::LogCapture;
using Hox::Testing::TempDir;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

google::protobuf::Any packed(const std::string& text) {
    StringValue message;
    message.set_value(text);
    google::protobuf::Any any;
    any.PackFrom(message);
    return any;
}

/// An update of the slice mb/0/<capability>.
class Update {
public:
    explicit Update(const std::string& capability, const std::string& stateId = "") {
        request.mutable_confid()->set_nodetype("mb");
        request.mutable_confid()->set_nodeid("0");
        request.mutable_confid()->set_capabilityid(capability);
        request.set_lastcapconfstateid(stateId);
        request.set_ispatch(true);
    }
    Update& set(const std::string& key, const std::string& text) {
        *pair(key).mutable_currentmessage() = packed(text);
        return *this;
    }
    Update& remove(const std::string& key) {
        pair(key);
        return *this;
    }
    Update& full() {
        request.set_ispatch(false);
        return *this;
    }

    Api::UpdateCapConfReq request;

private:
    Hox::ObserverTree::ObsTreeDataNodePair& pair(const std::string& key) {
        return *(*request.mutable_capconfchangeset()->mutable_node_change_map())[key]
                    .add_nodepairlist();
    }
};

class ConfigurationStore : public ::testing::Test {
protected:
    ConfigurationStore() { start(); }

    void start() {
        m_tree.emplace();
        m_handler.emplace(*m_tree, m_lock, (m_dir / "conf").string(), "head-1");
        m_handler->registerObsTreeHandlers();
        m_handler->addObservers();
    }

    Status tryUpdate(const Update& update) {
        auto result =
            m_tree->callApiOp<UnaryOps::UPDATE, Api::UpdateCapConfReq, Api::UpdateCapConfResp>(
                "/sys/conf", update.request);
        m_stateId = result.message->capconfstateid();
        return result.status;
    }

    /// Updates and returns the new state id.
    std::string update(const Update& request) {
        const Status status = tryUpdate(request);
        EXPECT_TRUE(status.isOk()) << status.errorMessage();
        EXPECT_FALSE(m_stateId.empty());
        return m_stateId;
    }

    /// Observes a slice; "<code> <key>=<text>..." for each call.
    std::any observe(const std::string& capability, const std::string& stateId,
                     std::vector<std::string>& told) {
        Api::ObserveCapConfReq request;
        *request.mutable_confid() = Update(capability).request.confid();
        request.set_lastcapconfstateid(stateId);
        return m_tree->observe<Api::ObserveCapConfReq>(
            "/sys/conf", request,
            [&told](const ChangeSetType& changes, const Status& status) {
                std::string line = std::to_string(status.statusCode()) + status.errorMessage();
                for (const auto& [key, keyChanges] : changes) {
                    line += " " + key;
                    if (key != "/__csid") {
                        line += "=" + keyChanges.at(0).current->get<StringValue>().value();
                    }
                }
                told.push_back(line);
            },
            0);
    }

    /// The keys and texts of the whole store, without the state ids' values.
    std::vector<std::string> content() {
        std::vector<std::string> lines;
        const std::string dump = m_tree->dumpDataTree();
        std::size_t start = 0;
        while ((start = dump.find("key: \"", start)) != std::string::npos) {
            start += 6;
            lines.push_back(dump.substr(start, dump.find('"', start) - start));
        }
        return lines;
    }

    TempDir m_dir;
    std::unique_ptr<std::unique_lock<std::mutex>> m_lock;
    std::optional<ObserverTree> m_tree;
    std::optional<ConfObstreeHandler> m_handler;
    std::string m_stateId;
};

TEST_F(ConfigurationStore, AcceptsTheFirstUpdateOfASliceWithAnyStateId) {
    LogCapture log;
    update(Update("tuner", "whatever").set("/a/b", "1"));
    EXPECT_THAT(content(), ElementsAre("/sys/conf/mb/0/tuner/__csid", "/sys/conf/mb/0/tuner/a/b"));
    EXPECT_THAT(log.textsAt(spdlog::level::info),
                ElementsAre("Updating system configuration for /sys/conf/mb/0/tuner"));
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
    for (const std::string& key : {std::string("/data"), std::string("/a/data~"), tooLong}) {
        const Status status = tryUpdate(Update("tuner").set("/ok", "1").set(key, "2"));
        EXPECT_EQ(status.statusCode(), ProtoStatus::INVALID_ARGUMENT) << key;
        EXPECT_THAT(status.errorMessage(), HasSubstr(key));
        EXPECT_THAT(content(), IsEmpty());
    }
    EXPECT_TRUE(tryUpdate(Update("tuner").set("/" + std::string(255, 'x'), "1")).isOk());
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
    m_handler.reset();
    start();
    EXPECT_THAT(content(), ElementsAre("/sys/conf/mb/0/tuner/a"));
    update(Update("tuner", "a slice without a state id takes any").set("/b", "2"));
}

TEST_F(ConfigurationStore, MakesItsDirectory) {
    EXPECT_TRUE(std::filesystem::is_directory(m_dir / "conf"));
}

using ConfigurationStoreDeathTest = ConfigurationStore;

TEST_F(ConfigurationStoreDeathTest, TakesOneObserverPerSlice) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    std::vector<std::string> told;
    EXPECT_DEATH(
        {
            const auto first = observe("tuner", "", told);
            const auto second = observe("tuner", "", told);
        },
        "m_observeCbMap.find\\(uniqueConfId\\) == m_observeCbMap.end\\(\\)");
}

TEST_F(ConfigurationStoreDeathTest, EndsTheProcessOnAnEntryWithoutPairs) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Update request("tuner");
    (*request.request.mutable_capconfchangeset()->mutable_node_change_map())["/a"];
    EXPECT_DEATH(tryUpdate(request), "CHECK failed: \\(index\\) < \\(current_size_\\): ");
}

}  // namespace
}  // namespace Hox::Capability::Configuration
