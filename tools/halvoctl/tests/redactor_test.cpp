#include "redactor.h"

#include <gtest/gtest.h>

#include "make_package.h"

namespace Hox::Ctl {

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
    Redactor other;
    other.addSaved(savedText("hidden"));
    other.addSaved("no json");
    EXPECT_EQ(other.redacted("hidden"), "hidden");
}

}  // namespace

}  // namespace Hox::Ctl
