#include "json_text.h"

#include <google/protobuf/any.pb.h>
#include <google/protobuf/wrappers.pb.h>
#include <gtest/gtest.h>

#include "obstree.pb.h"
#include "state_monitoring.pb.h"

namespace Hox::Ctl {

namespace {

namespace StateApi = Hox::Capability::StateMonitoring::Api;
using ObserverTree::ObsTreeDataNodePair;

class JsonTextTest : public ::testing::Test {
protected:
    google::protobuf::DescriptorPool m_empty;
    JsonText m_json{m_empty};
};

TEST_F(JsonTextTest, NamesAreThoseOfTheProtoFileAndDefaultsArePrinted) {
    StateApi::StateNotification report;
    report.set_service_id("a");
    EXPECT_EQ(m_json.line(report),
              R"({"severity":"OK","service_id":"a","type":"","source":"","msg":"",)"
              R"("extendedInfo":""})");
}

TEST_F(JsonTextTest, AKnownPackedValueIsPrinted) {
    ObsTreeDataNodePair pair;
    google::protobuf::StringValue text;
    text.set_value("x");
    pair.mutable_currentmessage()->PackFrom(text);
    EXPECT_EQ(m_json.line(pair),
              R"({"modifiedIndex":"0","createdIndex":"0","currentMessage":)"
              R"({"@type":"type.googleapis.com/google.protobuf.StringValue","value":"x"}})");
}

TEST_F(JsonTextTest, AnUnknownPackedValueIsPrintedAsItsBytes) {
    ObsTreeDataNodePair pair;
    pair.mutable_currentmessage()->set_type_url("type.googleapis.com/My.Own");
    pair.mutable_currentmessage()->set_value("\xff\x01z");
    EXPECT_EQ(m_json.line(pair), R"({"modifiedIndex":"0","createdIndex":"0","currentMessage":)"
                                 R"({"@type":"type.googleapis.com/My.Own","base64":"/wF6"}})");
}

TEST_F(JsonTextTest, AKnownValueThatJsonCannotRepresentIsPrintedAsItsBytes) {
    StateApi::StoredNotification stored;
    stored.mutable_statenotification()->mutable_timestamp()->set_seconds(1LL << 62);
    ObsTreeDataNodePair pair;
    pair.mutable_currentmessage()->PackFrom(stored);
    EXPECT_NE(m_json.line(pair).find(R"("base64":")"), std::string::npos) << m_json.line(pair);
    EXPECT_NE(m_json.line(pair).find(R"("modifiedIndex":"0")"), std::string::npos);
    EXPECT_NE(m_json.line(stored).find(
                  R"({"@type":"type.googleapis.com/Hox.Capability.StateMonitoring.Api.)"
                  R"(StoredNotification","base64":")"),
              std::string::npos)
        << m_json.line(stored);
}

TEST_F(JsonTextTest, AValueWithoutATypeIsPrintedAsItsBytes) {
    ObsTreeDataNodePair pair;
    pair.mutable_currentmessage()->set_value("abc");
    EXPECT_NE(m_json.line(pair).find(R"({"@type":"unknown","base64":"YWJj"})"), std::string::npos)
        << m_json.line(pair);
}

}  // namespace

}  // namespace Hox::Ctl
