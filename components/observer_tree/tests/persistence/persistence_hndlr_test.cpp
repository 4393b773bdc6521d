#include "hox/observer_tree/persistence/persistence_hndlr.h"

#include <gmock/gmock.h>
#include <google/protobuf/wrappers.pb.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "hox/observer_tree/double_registration_error.h"
#include "hox/testing/assertion_reports.h"
#include "hox/testing/log_capture.h"
#include "persistence/persistence_kit.h"

namespace Hox::ObserverTree {
namespace {

using Hox::Testing::AssertionReports;
using Hox::Testing::LogCapture;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using TestKit::Observations;
using TestKit::Persistence;

/// Longer than any subject of an expression.
std::string endlessKey() {
    return "/keep/" + std::string(5000, 'x');
}

TEST_F(Persistence, TellsItsExpression) {
    const LogCapture log("PersistenceHndlr");
    handler();
    EXPECT_THAT(log.textsAt(spdlog::level::trace),
                ElementsAre("Starting Persistence handler with persistKeyRegex /keep/.*|/__csid"));
}

TEST_F(Persistence, IsForOneHandlerPerTree) {
    auto& first = handler();
    EXPECT_THROW(PersistenceHndlr(m_tree, m_lock, "mb", "0", "cap", "/other/.*"),
                 DoubleRegistrationError);
    first.init(true, m_dir);
    set("/keep/a", "1");
    set("/other/b", "2");
    EXPECT_THAT(files(m_dir), ElementsAre("/keep/a=1"));
}

TEST_F(Persistence, MakesTheDirectoryAndEmptiesTheMatchingPartOfTheTree) {
    const LogCapture log("PersistenceHndlr");
    set("/keep/a", "1");
    set("/other", "2");
    handler().init(false, m_dir);
    EXPECT_TRUE(std::filesystem::is_directory(m_dir));
    EXPECT_THAT(content(), ElementsAre("/other=2"));
    EXPECT_THAT(log.textsAt(spdlog::level::info),
                ElementsAre("Created persist directory " + m_dir.string()));
}

TEST_F(Persistence, LoadsWhatIsInTheDirectoryAndSaysNothingOfOneThatExists) {
    const LogCapture log("PersistenceHndlr");
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

TEST_F(Persistence, WritesAllOfItsTreeIntoADirectoryOnDemand) {
    set("/keep/a", "1");
    set("/keep/a/b", "2");
    set("/__csid", "7");
    set("/other", "3");
    auto& persistence = handler();
    write([&](DataTree& tree) { persistence.writeAll(tree, m_dir); });
    EXPECT_THAT(files(m_dir), ElementsAre("/__csid=7", "/keep/a=1", "/keep/a/b=2"));
    set("/keep/a", "4");
    EXPECT_THAT(files(m_dir), ElementsAre("/__csid=7", "/keep/a=1", "/keep/a/b=2")) << "once";
}

TEST_F(Persistence, TellsItsCallerWhatCannotBeWrittenOnDemand) {
    const AssertionReports reports;
    set("/keep/a", "1");
    std::ofstream(m_dir) << "in the way";
    auto& persistence = handler();
    write([&](DataTree& tree) {
        EXPECT_THROW(persistence.writeAll(tree, m_dir), std::filesystem::filesystem_error);
    });
    EXPECT_THAT(reports.conditions(), IsEmpty());
}

TEST_F(Persistence, LoadsWhatAFilterMakesOfTheDirectory) {
    NodeDataFileHndlr().saveChangeSet(TestKit::newKeys({"/keep/a", "/keep/b"}), m_dir);
    handler().init(false, m_dir, [](ChangeSetType& loaded) { loaded.erase("/keep/a"); });
    EXPECT_THAT(content(), ElementsAre("/keep/b=/keep/b"));
}

TEST_F(Persistence, StartsWithEverySavedValueOrNotAtAll) {
    set("/keep/before", "1");
    std::filesystem::create_directories(m_dir / "keep/a");
    std::filesystem::create_symlink("data", m_dir / "keep/a/data");  // to itself
    EXPECT_THROW(handler().init(true, m_dir), std::filesystem::filesystem_error);
    EXPECT_THAT(content(), ElementsAre("/keep/before=1"));
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

TEST_F(Persistence, TakesKeysThatMatchAsAWholeOnly) {
    NodeDataFileHndlr().saveChangeSet(TestKit::newKeys({"/x/keep/saved", "/x/__csid"}), m_dir);
    auto& persistence = handler();
    persistence.init(true, m_dir);
    EXPECT_THAT(content(), IsEmpty());
    Observations observations;
    const auto handle = observe("/keep/.*|/__csid", observations);
    set("/x/keep/a", "1");
    set("/x/__csid", "2");
    EXPECT_THAT(observations.calls(), IsEmpty());
    EXPECT_THAT(files(m_dir), ElementsAre("/x/__csid=/x/__csid", "/x/keep/saved=/x/keep/saved"));
    persistence.applyChangeSet(TestKit::newKeys({"/x/keep/b"}), false, false);
    EXPECT_THAT(content(), ElementsAre("/x/__csid=2", "/x/keep/a=1"));
}

TEST_F(Persistence, PassesOverAKeyThatIsTooLongForItsExpression) {
    auto& persistence = handler();
    persistence.init(true, m_dir);
    const std::string key = endlessKey();
    set(key, "1");
    EXPECT_THAT(files(m_dir), IsEmpty());
    EXPECT_TRUE(read(".*").changeset().node_change_map().empty());
    persistence.applyChangeSet(TestKit::newKeys({"/keep/a", key}), false, false);
    EXPECT_THAT(content(), ElementsAre("/keep/a=/keep/a", key + "=1"));
    EXPECT_THAT(files(m_dir), ElementsAre("/keep/a=/keep/a"));
}

TEST_F(Persistence, StartsFromAStateIdThatCannotBeRead) {
    std::filesystem::create_directories(m_dir / "__csid");
    std::ofstream(m_dir / "__csid/data") << "broken";
    NodeDataFileHndlr().saveChangeSet(TestKit::newKeys({"/keep/a"}), m_dir);
    handler().init(true, m_dir);
    EXPECT_EQ(update({}).conf_state_id(), "");
    set("/keep/b", "2");
    set("/__csid", "7");
    EXPECT_THAT(files(m_dir), ElementsAre("/__csid=7", "/keep/a=/keep/a", "/keep/b=2"));
}

TEST_F(Persistence, TellsWhyAFileCannotBeWritten) {
    const LogCapture log;
    const AssertionReports reports;
    handler().init(true, m_dir);
    std::filesystem::remove(m_dir);
    std::filesystem::create_symlink("/proc/no/such/place", m_dir);
    set("/keep/a", "1");
    EXPECT_THAT(reports.conditions(), ElementsAre("false"));
    EXPECT_THAT(log.textsAt(spdlog::level::err),
                ElementsAre(StartsWith("Caught exception in Observer Tree observe Callback:\n"
                                       "filesystem error: cannot ")));
}

TEST_F(Persistence, TellsOfAMalformedExpressionAtItsFirstUse) {
    const LogCapture log;
    const AssertionReports reports;
    auto& persistence = handler("(");
    EXPECT_THAT(log.textsAt(spdlog::level::err), IsEmpty());
    EXPECT_THROW(persistence.init(false, m_dir), std::regex_error);
    EXPECT_THAT(reports.conditions(), ElementsAre("false"));
    persistence.startPersistingObsTree("", false);
    EXPECT_THAT(reports.conditions(), ElementsAre("false", "status.isOk()"));
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

TEST_F(PersistenceDeathTest, EndsTheProcessAtAMalformedExpression) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(handler("(").init(false, m_dir), "Assertion failed: \\[false\\]");
    EXPECT_DEATH(handler("(").startPersistingObsTree("", false),
                 "Assertion failed: \\[status.isOk\\(\\)\\]");
}

}  // namespace
}  // namespace Hox::ObserverTree
