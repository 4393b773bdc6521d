#include "packed_values.h"

#include <google/protobuf/any.pb.h>
#include <google/protobuf/struct.pb.h>
#include <google/protobuf/wrappers.pb.h>
#include <gtest/gtest.h>

#include "known_files.h"
#include "obstree.pb.h"
#include "state_monitoring.pb.h"

namespace Hox::Ctl {

namespace {

namespace StateApi = Hox::Capability::StateMonitoring::Api;

void addFile(const google::protobuf::FileDescriptor& file, KnownFiles& files) {
    for (int index = 0; index < file.dependency_count(); ++index) {
        addFile(*file.dependency(index), files);
    }
    google::protobuf::FileDescriptorProto proto;
    file.CopyTo(&proto);
    files.add(proto);
}

std::unique_ptr<KnownFiles> stateFiles() {
    auto files = std::make_unique<KnownFiles>();
    addFile(*StateApi::StateNotification::descriptor()->file(), *files);
    addFile(*google::protobuf::StringValue::descriptor()->file(), *files);
    addFile(*ObserverTree::ObsTreeObserveChangeSet::descriptor()->file(), *files);
    return files;
}

google::protobuf::Any packed(const google::protobuf::Message& message) {
    google::protobuf::Any any;
    any.PackFrom(message);
    return any;
}

google::protobuf::Any packedText(const std::string& text) {
    google::protobuf::StringValue value;
    value.set_value(text);
    return packed(value);
}

class PackedValuesTest : public ::testing::Test {
protected:
    /// "<kind> <path>: <before> -> <after>" of each field that differs.
    std::vector<std::string> differences(const google::protobuf::Any& before,
                                         const google::protobuf::Any& after) {
        Change change;
        change.set_kind(CHANGED);
        *change.mutable_previous() = before;
        *change.mutable_current() = after;
        m_values.complete(change);
        std::vector<std::string> result;
        for (const auto& field : change.fields()) {
            result.push_back(ChangeKind_Name(field.kind()) + " " + field.path() + ": " +
                             field.previous() + " -> " + field.current());
        }
        return result;
    }

    ServiceModel m_model{stateFiles()};
    PackedValues m_values{m_model};
};

using Texts = std::vector<std::string>;

TEST_F(PackedValuesTest, FieldsThatDifferAreListedWithoutTheMessagesThatHoldThem) {
    StateApi::StoredNotification before;
    before.mutable_statenotification()->set_msg("grüße");
    before.mutable_statenotification()->mutable_timestamp()->set_seconds(1);
    auto after = before;
    after.set_index(8);
    after.mutable_statenotification()->set_severity(StateApi::ERROR);
    after.mutable_statenotification()->set_msg("a\n\"b\"");
    after.mutable_statenotification()->mutable_timestamp()->set_seconds(2);
    EXPECT_EQ(differences(packed(before), packed(after)),
              (Texts{"CHANGED index: 0 -> 8",
                     "CHANGED stateNotification.timeStamp: \"1970-01-01T00:00:01Z\" -> "
                     "\"1970-01-01T00:00:02Z\"",
                     "CHANGED stateNotification.severity: OK -> ERROR",
                     "CHANGED stateNotification.msg: \"grüße\" -> \"a\\n\\\"b\\\"\""}));
}

TEST_F(PackedValuesTest, AnAbsentFieldEqualsItsDefault) {
    StateApi::StoredNotification before;
    auto after = before;
    after.mutable_previousstateseverity()->set_stateseverity(StateApi::OK);
    EXPECT_EQ(differences(packed(before), packed(after)), Texts{});
    after.mutable_statenotification()->mutable_timestamp()->set_seconds(2);
    EXPECT_EQ(differences(packed(before), packed(after)),
              Texts{"CHANGED stateNotification.timeStamp: none -> \"1970-01-01T00:00:02Z\""});
}

TEST_F(PackedValuesTest, ElementsOfListsAndMapsHaveTheirPlace) {
    StateApi::StateMonitorStatus before;
    before.add_statemonitorconnectionstatus()->set_connectionurl("a");
    auto after = before;
    after.mutable_statemonitorconnectionstatus(0)->set_connectionurl("b");
    after.add_statemonitorconnectionstatus()->set_connectionurl("c");
    EXPECT_EQ(differences(packed(before), packed(after)),
              (Texts{"CHANGED stateMonitorConnectionStatus[0].connectionUrl: \"a\" -> \"b\"",
                     "ADDED stateMonitorConnectionStatus[1]:  -> "
                     "{\"connectStatus\":\"CONNECTED\",\"connectionUrl\":\"c\"}"}));
    ObserverTree::ObsTreeObserveChangeSet one;
    ObserverTree::ObsTreeObserveChangeSet other;
    (*other.mutable_node_change_map())["/k"];
    EXPECT_EQ(differences(packed(one), packed(other)),
              Texts{"ADDED node_change_map[\"/k\"]:  -> {\"nodePairList\":[]}"});
}

TEST_F(PackedValuesTest, TheOrderOfAMapMeansNothing) {
    const auto entry = [](const std::string& key) {
        ObserverTree::ObsTreeObserveChangeSet element;
        (*element.mutable_node_change_map())[key].add_nodepairlist();
        return element.SerializeAsString();
    };
    auto one = packed(ObserverTree::ObsTreeObserveChangeSet());
    auto other = one;
    one.set_value(entry("/a") + entry("/b"));
    other.set_value(entry("/b") + entry("/a"));
    EXPECT_TRUE(m_values.areSame(one, other));
    other.set_value(entry("/b"));
    EXPECT_FALSE(m_values.areSame(one, other));
    EXPECT_TRUE(m_values.areSame(packedText("[1, 2]"), packedText("[1, 2]")));
    EXPECT_FALSE(m_values.areSame(packedText("[1, 2]"), packedText("[1]")));
    one.set_type_url("type.googleapis.com/My.Unknown");
    other = one;
    EXPECT_TRUE(m_values.areSame(one, other));
    other.set_value("");
    EXPECT_FALSE(m_values.areSame(one, other));
}

TEST_F(PackedValuesTest, AValueOfAnUnknownTypeIsNamedWithItsSize) {
    google::protobuf::Any any;
    any.set_type_url("type.googleapis.com/My.Own");
    any.set_value("12345");
    EXPECT_EQ(m_values.text(any), "(My.Own, 5 bytes)");
    auto other = any;
    other.set_value("1");
    EXPECT_EQ(differences(any, other), Texts{});
}

TEST_F(PackedValuesTest, AValueThatIsNotOfItsTypeIsNamedWithItsSize) {
    auto any = packedText("x");
    any.set_value("\xff\xff");
    EXPECT_EQ(m_values.text(any), "(google.protobuf.StringValue, 2 bytes)");
}

TEST_F(PackedValuesTest, ATextWithTheJsonFormOfAValueIsThatValue) {
    const std::string type =
        "type.googleapis.com/Hox.Capability.StateMonitoring.Api.SnmpConfiguration";
    EXPECT_EQ(differences(packedText("{\"@type\":\"" + type + "\",\"trapPort\":\"1\"}"),
                          packedText("{\"@type\":\"" + type + "\",\"trapPort\":\"2\"}")),
              Texts{"CHANGED trapPort: \"1\" -> \"2\""});
}

TEST_F(PackedValuesTest, OtherJsonInATextIsPrintedAsItIs) {
    EXPECT_EQ(m_values.text(packedText("{\"b\": 1,\n\"a\": [2]}")), "{\"b\": 1, \"a\": [2]}");
    EXPECT_EQ(m_values.text(packedText("{no json")), "\"{no json\"");
    EXPECT_EQ(m_values.text(packedText("474000")), "\"474000\"");
}

}  // namespace

}  // namespace Hox::Ctl
