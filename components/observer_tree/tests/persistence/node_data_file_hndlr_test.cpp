#include "hox/observer_tree/persistence/node_data_file_hndlr.h"

#include <gmock/gmock.h>
#include <google/protobuf/wrappers.pb.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include "hox/cpputil/error/invalid_argument_error.h"
#include "hox/testing/log_capture.h"
#include "hox/testing/temp_dir.h"
#include "obstree_internals.pb.h"
#include "tree_test_kit.h"

namespace fs = std::filesystem;

namespace Hox::ObserverTree {
namespace {

using Hox::Testing::LogCapture;
using Hox::Testing::TempDir;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAreArray;
using TestKit::value;

google::protobuf::Any packed(const google::protobuf::Message& message) {
    google::protobuf::Any any;
    any.PackFrom(message);
    return any;
}

google::protobuf::Any packed(const std::string& text) {
    return packed(TestKit::message(text));
}

std::string contentOf(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

void writeFile(const fs::path& file, const std::string& content) {
    fs::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << content;
}

/// All entries below the folder, by their paths inside it.
std::set<std::string> entriesOf(const fs::path& folder) {
    std::set<std::string> entries;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        entries.insert(fs::relative(entry.path(), folder).string());
    }
    return entries;
}

/// Limits the number of open files during its lifetime.
class FewDescriptors {
public:
    FewDescriptors() {
        EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &m_former), 0);
        rlimit limit = m_former;
        limit.rlim_cur = count;
        EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    }
    ~FewDescriptors() { EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &m_former), 0); }
    FewDescriptors(const FewDescriptors&) = delete;
    FewDescriptors(FewDescriptors&&) = delete;
    FewDescriptors& operator=(const FewDescriptors&) = delete;
    FewDescriptors& operator=(FewDescriptors&&) = delete;

    static constexpr int count = 64;

private:
    rlimit m_former{};
};

class NodeDataFiles : public ::testing::Test {
protected:
    TempDir m_parent;
    const fs::path m_dir = m_parent / "conf";
    NodeDataFileHndlr m_files;
};

TEST_F(NodeDataFiles, HoldTheJsonOfThePackedMessageWithoutALineFeed) {
    m_files.saveNodeData(m_dir, "/a/b", packed("some \"text\""));
    EXPECT_EQ(contentOf(m_dir / "a/b/data"),
              R"({"@type":"type.googleapis.com/google.protobuf.StringValue",)"
              R"("value":"some \"text\""})");
    EXPECT_THAT(entriesOf(m_dir), ElementsAre("a", "a/b", "a/b/data"));
}

TEST_F(NodeDataFiles, HoldEachFieldThatIsSetByItsNameInJson) {
    RegExObserveReq oneField;
    oneField.set_reg_ex("/a/.*");
    UpdateDataTreeReq someFields;
    someFields.set_node_remove_regex("<x>");
    ObsTreeDataNodePair nested;
    nested.set_modifiedindex(7);
    *nested.mutable_currentmessage() = packed(TestKit::number(-5));
    const std::string type = R"({"@type":"type.googleapis.com/)";
    struct Case {
        google::protobuf::Any value;
        std::string json;
    };
    for (const auto& [value, json] :
         {Case{packed(oneField), R"(Hox.ObserverTree.RegExObserveReq","regEx":"/a/.*"})"},
          Case{packed(someFields),
               R"(Hox.ObserverTree.UpdateDataTreeReq","nodeRemoveRegex":"\u003cx\u003e"})"},
          Case{packed(nested),
               R"(Hox.ObserverTree.ObsTreeDataNodePair","modifiedIndex":"7","currentMessage":)" +
                   type + R"(google.protobuf.Int64Value","value":"-5"}})"},
          Case{packed(TestKit::number(9007199254740993)),
               R"(google.protobuf.Int64Value","value":"9007199254740993"})"},
          Case{packed(RegExObserveReq()), R"(Hox.ObserverTree.RegExObserveReq"})"}}) {
        m_files.saveNodeData(m_dir, "/a", value);
        EXPECT_EQ(contentOf(m_dir / "a/data"), type + json);
        EXPECT_EQ(m_files.readNodeData(m_dir).at("/a").at(0).current->toAny()->SerializeAsString(),
                  value.SerializeAsString());
    }
}

TEST_F(NodeDataFiles, LieInTheWorkingDirectoryForTheRoot) {
    m_files.saveNodeData(m_dir, "/", packed("root"));
    EXPECT_THAT(entriesOf(m_dir), ElementsAre("data"));
}

TEST_F(NodeDataFiles, ReplaceAnEarlierValueAndALeftOverTemporaryFile) {
    writeFile(m_dir / "a/data~", "half a val");
    m_files.saveNodeData(m_dir, "/a", packed("one"));
    m_files.saveNodeData(m_dir, "/a", packed("two"));
    EXPECT_THAT(entriesOf(m_dir), ElementsAre("a", "a/data"));
    EXPECT_EQ(TestKit::textOf(m_files.readNodeData(m_dir).at("/a").at(0).current), "two");
}

TEST_F(NodeDataFiles, HoldTheBytesOfAValueThatHasNoJson) {
    google::protobuf::Any unknown;
    unknown.set_type_url("type.googleapis.com/No.Such.Type");
    unknown.set_value("x\xff");
    m_files.saveNodeData(m_dir, "/a", unknown);
    EXPECT_EQ(contentOf(m_dir / "a/data"),
              R"({"@type":"type.googleapis.com/No.Such.Type","@bytes":"eP8="})");
    const LogCapture log("NodeDataFileHndlr");
    const auto read = m_files.readNodeData(m_dir);
    ASSERT_EQ(read.count("/a"), 1U);
    EXPECT_EQ(read.at("/a").at(0).current->toAny()->SerializeAsString(),
              unknown.SerializeAsString());
    EXPECT_THAT(log.textsAt(spdlog::level::warn), IsEmpty());
}

TEST_F(NodeDataFiles, AreNotWrittenForATypeThatIsNoUtf8) {
    m_files.saveNodeData(m_dir, "/a", packed("old"));
    google::protobuf::Any broken;
    broken.set_type_url("\xff");
    EXPECT_THROW(m_files.saveNodeData(m_dir, "/a", broken), Hox::CppUtil::InvalidArgumentError);
    EXPECT_EQ(TestKit::textOf(m_files.readNodeData(m_dir).at("/a").at(0).current), "old");
}

TEST_F(NodeDataFiles, AreForOwnerAndGroupAlone) {
    const mode_t former = ::umask(0);
    m_files.saveNodeData(m_dir, "/a/b", packed("b"));
    ::umask(former);
    for (const char* folder : {"", "a", "a/b"}) {
        EXPECT_EQ(fs::status(m_dir / folder).permissions(), fs::perms(0750)) << folder;
    }
    EXPECT_EQ(fs::status(m_dir / "a/b/data").permissions(), fs::perms(0640));
}

TEST_F(NodeDataFiles, KeepAValueBesideItsChildren) {
    m_files.saveNodeData(m_dir, "/a/b", packed("b"));
    m_files.saveNodeData(m_dir, "/a", packed("a"));
    m_files.removeNodeData(m_dir, "/a");
    EXPECT_THAT(entriesOf(m_dir), ElementsAre("a", "a/b", "a/b/data"));
}

TEST_F(NodeDataFiles, TakeEmptyDirectoriesAlongUpToTheFirstThatHoldsSomething) {
    writeFile(m_parent / "other", "kept");
    m_files.saveNodeData(m_dir, "/a/b", packed("b"));
    m_files.removeNodeData(m_dir, "/a/b");
    EXPECT_FALSE(fs::exists(m_dir)) << "the working directory goes as well";
    EXPECT_TRUE(fs::exists(m_parent / "other"));
}

TEST_F(NodeDataFiles, TakeEmptyDirectoriesAboveTheWorkingDirectoryAlongToo) {
    writeFile(m_parent / "other", "kept");
    const fs::path dir = m_parent / "x/y/conf";
    m_files.saveNodeData(dir, "/a/b", packed("b"));
    m_files.removeNodeData(dir, "/a/b");
    EXPECT_THAT(entriesOf(m_parent.path()), ElementsAre("other"));
}

TEST_F(NodeDataFiles, MayBeRemovedWithoutHavingBeenSaved) {
    m_files.saveNodeData(m_dir, "/a", packed("a"));
    fs::create_directories(m_dir / "empty/below");
    m_files.removeNodeData(m_dir, "/never/saved");
    EXPECT_TRUE(fs::exists(m_dir / "empty/below"));
    m_files.removeNodeData(m_dir, "/empty/below");
    EXPECT_THAT(entriesOf(m_dir), ElementsAre("a", "a/data"));
}

TEST_F(NodeDataFiles, AreWrittenAndRemovedByTheFirstChangeOfEachKey) {
    m_files.saveNodeData(m_dir, "/gone", packed("old"));
    ChangeSetType changes;
    changes["/a"] = {ChangeSetMapVal{value("1"), nullptr}, ChangeSetMapVal{value("2"), nullptr}};
    changes["/a/b"] = {ChangeSetMapVal{value("3"), value("0")}};
    changes["/gone"] = {ChangeSetMapVal{nullptr, value("old")}};
    changes["/z/y/x"] = {ChangeSetMapVal{value("4"), nullptr}};
    m_files.saveChangeSet(changes, m_dir);
    EXPECT_THAT(TestKit::linesOf(m_files.readNodeData(m_dir)),
                ElementsAre("/a: null -> 1", "/a/b: null -> 3", "/z/y/x: null -> 4"));
    EXPECT_FALSE(fs::exists(m_dir / "gone"));
}

TEST_F(NodeDataFiles, AreWrittenAndRemovedInTheOrderOfTheirKeys) {
    m_files.saveNodeData(m_dir, "/b", packed("old"));
    ChangeSetType changes;
    changes["/c"] = {ChangeSetMapVal{value("3"), nullptr}};
    changes["/b"] = {ChangeSetMapVal{nullptr, value("old")}};
    changes["/a"] = {ChangeSetMapVal{value("1"), nullptr}};
    const LogCapture log("NodeDataFileHndlr");
    m_files.saveChangeSet(changes, m_dir);
    const std::string saving = "Saving node data - workingDir " + m_dir.string();
    EXPECT_THAT(log.textsAt(spdlog::level::trace),
                ElementsAre(StartsWith(saving + " key: /a, "), "Removing node data - key: /b",
                            StartsWith(saving + " key: /c, ")));
}

TEST_F(NodeDataFiles, AreMadeAnewBehindARemovalThatTookTheirDirectories) {
    m_files.saveNodeData(m_dir, "/a/m", packed("old"));
    ChangeSetType changes;
    changes["/a/m"] = {ChangeSetMapVal{nullptr, nullptr}};
    changes["/a/n"] = {ChangeSetMapVal{value("new"), nullptr}};
    m_files.saveChangeSet(changes, m_dir);
    EXPECT_THAT(entriesOf(m_dir), ElementsAre("a", "a/n", "a/n/data"));
}

TEST_F(NodeDataFiles, FindTheirDirectoriesThereOrMakeThem) {
    m_files.saveNodeData(m_dir, "/a/b", packed("old"));
    ChangeSetType changes;
    for (const char* key : {"/a/b", "/a/b/c", "/a/c/d/e", "/a/c/d/f", "/a/c/g", "/b"}) {
        changes[key] = {ChangeSetMapVal{value(key), nullptr}};
    }
    m_files.saveChangeSet(changes, m_dir);
    EXPECT_THAT(
        TestKit::linesOf(m_files.readNodeData(m_dir)),
        ElementsAre("/a/b: null -> /a/b", "/a/b/c: null -> /a/b/c", "/a/c/d/e: null -> /a/c/d/e",
                    "/a/c/d/f: null -> /a/c/d/f", "/a/c/g: null -> /a/c/g", "/b: null -> /b"));
    const auto again = entriesOf(m_dir);
    m_files.saveChangeSet(changes, m_dir);
    EXPECT_EQ(entriesOf(m_dir), again);
}

TEST_F(NodeDataFiles, LieInADirectoryNamedWithASlashAtItsEndToo) {
    ChangeSetType changes;
    changes["/a"] = {ChangeSetMapVal{value("1"), nullptr}};
    changes["/a/b"] = {ChangeSetMapVal{value("2"), nullptr}};
    m_files.saveChangeSet(changes, m_dir / "");
    EXPECT_THAT(entriesOf(m_dir), ElementsAre("a", "a/b", "a/b/data", "a/data"));
    m_files.removeNodeData(m_dir / "", "/a/b");
    EXPECT_THAT(entriesOf(m_dir), ElementsAre("a", "a/data"));
}

TEST_F(NodeDataFiles, LieAsDeepAsAKeyMayBe) {
    std::string key;
    for (int level = 0; level < 128; ++level) {
        key += "/a";
    }
    m_files.saveNodeData(m_dir, key, packed("first"));
    EXPECT_TRUE(fs::exists(m_dir.string() + key + "/data"));
    m_files.saveChangeSet({{"/b", {{value("1"), nullptr}}}, {"/b" + key, {{value("2"), nullptr}}}},
                          m_dir);
    EXPECT_THAT(TestKit::linesOf(m_files.readNodeData(m_dir)),
                ElementsAre(key + ": null -> first", "/b: null -> 1", "/b" + key + ": null -> 2"));
}

TEST_F(NodeDataFiles, HoldLongValuesInFull) {
    const std::string text(1000000, 'x');
    m_files.saveNodeData(m_dir, "/a", packed(text));
    EXPECT_EQ(TestKit::textOf(m_files.readNodeData(m_dir).at("/a").at(0).current), text);
}

TEST_F(NodeDataFiles, WantAChangeForEachKey) {
    ChangeSetType changes;
    changes["/a"] = {};
    EXPECT_THROW(m_files.saveChangeSet(changes, m_dir), std::out_of_range);
}

TEST_F(NodeDataFiles, AreReadByTheirNameAlone) {
    m_files.saveNodeData(m_dir, "/a/b", packed("b"));
    writeFile(m_dir / "a/data~", "{}");
    writeFile(m_dir / "a/data.old", "{}");
    fs::create_directories(m_dir / "c/data");
    fs::create_directories(m_dir / "d");
    EXPECT_THAT(TestKit::linesOf(m_files.readNodeData(m_dir)), ElementsAre("/a/b: null -> b"));
}

TEST_F(NodeDataFiles, AreAllReadOrNone) {
    std::string key;
    for (int level = 0; level <= FewDescriptors::count; ++level) {
        key += "/a";
    }
    m_files.saveNodeData(m_dir, key, packed("deep"));
    m_files.saveNodeData(m_dir, "/a/b", packed("flat"));
    const FewDescriptors few;
    try {
        m_files.readNodeData(m_dir);
        FAIL() << "nothing thrown";
    } catch (const fs::filesystem_error& error) {
        EXPECT_EQ(error.code(), std::errc::too_many_files_open);
        EXPECT_THAT(error.path1().string(), StartsWith((m_dir / "a/a").string()));
    }
}

TEST_F(NodeDataFiles, AreReadThroughALinkToAFileButNotBehindOneToADirectory) {
    m_files.saveNodeData(m_parent / "elsewhere", "/a", packed("x"));
    fs::create_directories(m_dir / "b");
    fs::create_symlink(m_parent / "elsewhere/a/data", m_dir / "b/data");
    fs::create_directory_symlink(m_parent / "elsewhere", m_dir / "c");
    fs::create_symlink("loop", m_dir / "loop");
    fs::create_directories(m_dir / "d");
    fs::create_symlink("nowhere", m_dir / "d/data");
    EXPECT_THAT(TestKit::linesOf(m_files.readNodeData(m_dir)), ElementsAre("/b: null -> x"));
}

TEST_F(NodeDataFiles, YieldTheSameKeysFromADirectoryNamedWithASlashAtItsEnd) {
    m_files.saveNodeData(m_dir, "/a/b", packed("b"));
    EXPECT_THAT(TestKit::linesOf(m_files.readNodeData(m_dir / "")), ElementsAre("/a/b: null -> b"));
}

TEST_F(NodeDataFiles, YieldTheEmptyKeyForTheFileInTheWorkingDirectory) {
    m_files.saveNodeData(m_dir, "/", packed("root"));
    EXPECT_THAT(TestKit::linesOf(m_files.readNodeData(m_dir)), ElementsAre(": null -> root"));
}

TEST_F(NodeDataFiles, YieldAnEmptyValueAndAWarningWhenTheyAreBroken) {
    const LogCapture log("NodeDataFileHndlr");
    writeFile(m_dir / "a/data", R"({"@type":"type.googleapis.com/google.protobuf.StringV)");
    writeFile(m_dir / "b/data", "");
    writeFile(m_dir / "c/data", R"({"@type":"type.googleapis.com/No.Such.Type","x":1})");
    m_files.saveNodeData(m_dir, "/good", packed("x"));
    const auto changes = m_files.readNodeData(m_dir);
    std::vector<std::string> warnings;
    for (const char* key : {"/a", "/b", "/c"}) {
        ASSERT_EQ(changes.count(key), 1U);
        EXPECT_EQ(changes.at(key).at(0).current->toAny()->ByteSizeLong(), 0U);
        EXPECT_EQ(changes.at(key).at(0).previous, nullptr);
        warnings.push_back("Loading an empty value, as there is no JSON of a known type in " +
                           m_dir.string() + key + "/data");
    }
    EXPECT_THAT(log.textsAt(spdlog::level::warn), UnorderedElementsAreArray(warnings));
}

TEST_F(NodeDataFiles, ReportErrorsOfTheFileSystem) {
    writeFile(m_dir / "a", "not a directory");
    EXPECT_THROW(m_files.saveNodeData(m_dir, "/a/b", packed("b")), fs::filesystem_error);
    EXPECT_THROW(m_files.readNodeData(m_parent / "missing"), fs::filesystem_error);
}

TEST_F(NodeDataFiles, StayAsTheyAreWhereTheyCannotBeWritten) {
    m_files.saveNodeData(m_dir, "/a", packed("old"));
    fs::create_directories(m_dir / "a/data~");
    try {
        m_files.saveNodeData(m_dir, "/a", packed("new"));
        FAIL() << "nothing thrown";
    } catch (const fs::filesystem_error& error) {
        EXPECT_EQ(error.code(), std::errc::is_a_directory);
        EXPECT_EQ(error.path1(), m_dir / "a/data~");
    }
    EXPECT_EQ(TestKit::textOf(m_files.readNodeData(m_dir).at("/a").at(0).current), "old");
}

TEST_F(NodeDataFiles, AreTraced) {
    LogCapture log("NodeDataFileHndlr");
    m_files.saveNodeData(m_dir, "/a", packed("x"));
    m_files.removeNodeData(m_dir, "/a");
    EXPECT_THAT(log.textsAt(spdlog::level::trace),
                ElementsAre("Saving node data - workingDir " + m_dir.string() + " key: /a, data " +
                                packed("x").DebugString(),
                            "Removing node data - key: /a"));
}

}  // namespace
}  // namespace Hox::ObserverTree
