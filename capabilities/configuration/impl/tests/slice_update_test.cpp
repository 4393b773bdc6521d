#include "slice_update.h"

#include <gmock/gmock.h>
#include <google/protobuf/wrappers.pb.h>
#include <gtest/gtest.h>

#include <initializer_list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Hox::Capability::Configuration {
namespace {

using google::protobuf::StringValue;
using Hox::ObserverTree::DataTree;
using Hox::ObserverTree::DataTreeVal;
using Hox::ObserverTree::DataTreeValPtr;
using Hox::ObserverTree::ProtoStatus;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr const char* root = "/sys/conf/mb/0/net";

StringValue message(const std::string& text) {
    StringValue result;
    result.set_value(text);
    return result;
}

std::string textOf(const DataTreeValPtr& value) {
    return value ? value->get<StringValue>().value() : "null";
}

/// A tree with values that are named like their keys.
class SliceUpdates : public ::testing::Test {
protected:
    SliceUpdates() {
        m_tree.setKeyPattern("/sys/conf");
        for (const char* key :
             {"/sys/conf/mb/0/mux/x", "/sys/conf/mb/0/net/__csid", "/sys/conf/mb/0/net/a",
              "/sys/conf/mb/0/net/b", "/sys/conf/mb/0/net/b/c", "/sys/conf/mb/0/network/y",
              "/sys/conf/mb/0/other/z"}) {
            m_tree.insert_or_assign(key, std::make_shared<const DataTreeVal>(message(key)));
        }
        m_tree.takeChangeSet();
    }

    void set(const std::string& key, const std::string& text) {
        pair(key).mutable_currentmessage()->PackFrom(message(text));
    }
    Hox::ObserverTree::ObsTreeDataNodePair& pair(const std::string& key) {
        return *(*m_request.mutable_capconfchangeset()->mutable_node_change_map())[key]
                    .add_nodepairlist();
    }

    /// One line per change that the update makes, "key: previous -> current".
    std::vector<std::string> changes() {
        SliceUpdate(m_request, root)
            .apply(m_tree, [this](const std::string& key, const google::protobuf::Any& value) {
                StringValue text;
                value.UnpackTo(&text);
                m_written.push_back(key + "=" + text.value());
            });
        std::vector<std::string> lines;
        for (const auto& [key, keyChanges] : m_tree.takeChangeSet()) {
            lines.push_back(key + ": " + textOf(keyChanges.at(0).previous) + " -> " +
                            textOf(keyChanges.at(0).current));
        }
        return lines;
    }

    DataTree m_tree;
    Api::UpdateCapConfReq m_request;
    std::vector<std::string> m_written;
};

TEST_F(SliceUpdates, ReplaceAllThatStartsWithTheRoot) {
    set("/d", "4");
    set("/b", "2");
    set("/0", "0");
    EXPECT_THAT(changes(),
                ElementsAre("/sys/conf/mb/0/net/0: null -> 0",
                            "/sys/conf/mb/0/net/__csid: /sys/conf/mb/0/net/__csid -> null",
                            "/sys/conf/mb/0/net/a: /sys/conf/mb/0/net/a -> null",
                            "/sys/conf/mb/0/net/b: /sys/conf/mb/0/net/b -> 2",
                            "/sys/conf/mb/0/net/b/c: /sys/conf/mb/0/net/b/c -> null",
                            "/sys/conf/mb/0/net/d: null -> 4",
                            "/sys/conf/mb/0/network/y: /sys/conf/mb/0/network/y -> null"));
    EXPECT_EQ(m_tree.size(), 5U);
    EXPECT_THAT(m_written, ElementsAre("/sys/conf/mb/0/net/0=0", "/sys/conf/mb/0/net/b=2",
                                       "/sys/conf/mb/0/net/d=4"));
}

TEST_F(SliceUpdates, RemoveAKeyOnceThatTheyNameForRemoval) {
    pair("/a");
    pair("/zero");
    EXPECT_THAT(changes(),
                ElementsAre("/sys/conf/mb/0/net/__csid: /sys/conf/mb/0/net/__csid -> null",
                            "/sys/conf/mb/0/net/a: /sys/conf/mb/0/net/a -> null",
                            "/sys/conf/mb/0/net/b: /sys/conf/mb/0/net/b -> null",
                            "/sys/conf/mb/0/net/b/c: /sys/conf/mb/0/net/b/c -> null",
                            "/sys/conf/mb/0/network/y: /sys/conf/mb/0/network/y -> null"));
}

TEST_F(SliceUpdates, LeaveTheRestAloneAsAPatch) {
    m_request.set_ispatch(true);
    set("/zz", "last");
    pair("/b");
    set("/b/c", "3");
    pair("/absent");
    set("/a", "1");
    EXPECT_THAT(changes(), ElementsAre("/sys/conf/mb/0/net/a: /sys/conf/mb/0/net/a -> 1",
                                       "/sys/conf/mb/0/net/b: /sys/conf/mb/0/net/b -> null",
                                       "/sys/conf/mb/0/net/b/c: /sys/conf/mb/0/net/b/c -> 3",
                                       "/sys/conf/mb/0/net/zz: null -> last"));
}

TEST_F(SliceUpdates, MayHaveNothingToWrite) {
    m_request.set_ispatch(true);
    EXPECT_THAT(changes(), IsEmpty());
}

TEST_F(SliceUpdates, TellWhatTheTreeWouldThrow) {
    for (const char* key : {"", "a", "/", "/a/", "/a//b", "/a*", "/.a."}) {
        m_request.Clear();
        set("/good", "x");
        set(key, "x");
        const auto status = SliceUpdate(m_request, root).check();
        EXPECT_EQ(status.statusCode(), ProtoStatus::FAILED_PRECONDITION) << key;
        EXPECT_NE(status.errorMessage(), "") << key;
    }
}

TEST_F(SliceUpdates, TellWhatNoFileCanHold) {
    set("/a/data", "x");
    const auto status = SliceUpdate(m_request, root).check();
    EXPECT_EQ(status.statusCode(), ProtoStatus::INVALID_ARGUMENT);
    EXPECT_THAT(status.errorMessage(), HasSubstr("/sys/conf/mb/0/net/a/data"));
}

/// The error text of a malformed key contains the whole key, and a status has space for about 8,000
/// bytes.
TEST_F(SliceUpdates, TellThatAMalformedKeyIsTooLong) {
    set("/a//" + std::string(9000, 'x'), "x");
    const auto status = SliceUpdate(m_request, root).check();
    EXPECT_EQ(status.statusCode(), ProtoStatus::INVALID_ARGUMENT);
    EXPECT_THAT(status.errorMessage(), HasSubstr("Key is longer than 3000 bytes: "));
}

TEST_F(SliceUpdates, TellAMalformedRootWithoutAnyEntry) {
    EXPECT_TRUE(SliceUpdate(m_request, root).check().isOk());
    EXPECT_EQ(SliceUpdate(m_request, "/sys/conf/mb//net").check().statusCode(),
              ProtoStatus::FAILED_PRECONDITION);
    EXPECT_EQ(SliceUpdate(m_request, "/sys/conf/mb/*/net").check().statusCode(),
              ProtoStatus::FAILED_PRECONDITION);
}

}  // namespace
}  // namespace Hox::Capability::Configuration
