#include "redactor.h"

#include <gtest/gtest.h>

#include "hox/observer_tree/persistence/value_text.h"
#include "make_package.h"
#include "state_monitoring.pb.h"

namespace Hox::Ctl {

namespace StateMonitoring = Hox::Capability::StateMonitoring::Api;

namespace {

TEST(Redactor, MasksWhatIsBehindTheWord) {
    const Redactor redactor;
    EXPECT_EQ(redactor.redacted(R"({"community": "secret", "trapPort": "162"})"),
              R"({"community": "***", "trapPort": "162"})");
    EXPECT_EQ(redactor.redacted(R"(x { community: "a \"b\" c" } y)"),
              R"(x { community: "***" } y)");
    EXPECT_EQ(redactor.redacted(R"("{\"community\":\"secret\",\"x\":1}")"),
              R"("{\"community\":\"***\",\"x\":1}")");
    EXPECT_EQ(redactor.redacted("community: \"cut\nnext \"line\""),
              "community: \"***\nnext \"line\"");
    EXPECT_EQ(redactor.redacted(R"({"community":"a\\","x":"kept"})"),
              R"({"community":"***","x":"kept"})");
    EXPECT_EQ(redactor.redacted(R"("{\"community\":\"a\\\"b\",\"x\":\"kept\"}")"),
              R"("{\"community\":\"***\",\"x\":\"kept\"}")");
    EXPECT_EQ(redactor.redacted(R"("{\"community\":\"a\\\\\",\"x\":\"kept\"}")"),
              R"("{\"community\":\"***\",\"x\":\"kept\"}")");
    EXPECT_EQ(redactor.redacted(R"({"community":""})"), R"({"community":"***"})");
    for (const auto* const text : {"the community of traps", "community", "community: none",
                                   "\"community\"", "community \"centre\"", ""}) {
        EXPECT_EQ(redactor.redacted(text), text);
    }
}

TEST(Redactor, MasksAKnownCommunityEverywhere) {
    Redactor redactor;
    redactor.add("s3cret");
    redactor.add("");
    EXPECT_EQ(redactor.redacted("s3cret \\006s3crets3cret!"), "*** \\006******!");
    redactor.add("\"\xc3\xa4\n");
    EXPECT_EQ(redactor.redacted("\"\xc3\xa4\n|\\\"\xc3\xa4\\n|\\\"\\303\\244\\n"), "***|***|***");
}

TEST(Redactor, AShortCommunityIsNoPartOfWords) {
    Redactor redactor;
    redactor.add("a");
    EXPECT_EQ(redactor.redacted("a bad \"a\" day"), "*** bad \"***\" day");
}

TEST(Redactor, KnowsSavedConfigurationsOfTraps) {
    const std::string json =
        R"({"@type":"type.googleapis.com/Hox.Capability.StateMonitoring.Api.SnmpConfiguration",)"
        R"("managerIp":"10.0.0.9","community":"hidden"})";
    Redactor direct;
    direct.addSaved(json);
    EXPECT_EQ(direct.redacted("hidden"), "***");
    std::string nested;
    for (const char character : json) {
        nested += (character == '"' ? "\\" : "") + std::string(1, character);
    }
    Redactor central;
    central.addSaved(savedText(nested));
    EXPECT_EQ(central.redacted("hidden"), "***");
    StateMonitoring::SnmpConfiguration configuration;
    configuration.set_community("hidden");
    google::protobuf::Any value;
    value.PackFrom(configuration);
    value.mutable_value()->append("\x78\x01", 2);  // a field that is not known
    const auto bytes = ObserverTree::textOfValue(value);
    ASSERT_EQ(bytes.find("hidden"), std::string::npos);
    Redactor withBytes;
    withBytes.addSaved(bytes);
    EXPECT_EQ(withBytes.redacted("hidden"), "***");
    EXPECT_NE(withBytes.redacted(bytes).find("\"@bytes\":\"***\""), std::string::npos) << bytes;
    Redactor other;
    other.addSaved(savedText("hidden"));
    other.addSaved("no json");
    EXPECT_EQ(other.redacted("hidden"), "hidden");
}

}  // namespace

}  // namespace Hox::Ctl
