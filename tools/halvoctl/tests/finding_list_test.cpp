#include "finding_list.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "make_package.h"

namespace Hox::Ctl {

namespace {

const PackageFiles identity{{"swvariant", "output:QAM\n"}, {"partno", "0\n"}};

/// Place, text and status of the refusal.
using Seen = std::vector<std::string>;

/// What is found in a package with the identity and these.
Seen seen(const PackageFiles& files, const PackageFiles& links = {}) {
    auto all = identity;
    all.insert(all.end(), files.begin(), files.end());
    const auto list = findingsIn(makePackage(all, links));
    Seen result;
    for (const auto& finding : list.findings()) {
        result.push_back(finding.where() + ": " + finding.text() + "|" + finding.refused_as());
    }
    return result;
}

std::string valueAt(const std::string& key) {
    return "sys/conf/mb/0/tuner/" + key + "/data";
}

TEST(FindingList, IsEmptyForAnExport) {
    EXPECT_EQ(seen({{"sys/", ""},
                    {valueAt("in/3/freq"), savedText("474000")},
                    {valueAt("__csid"), savedText("id")},
                    {valueAt("bytes"), R"({"@type":"x/My.Own","@bytes":"AAE="})"},
                    {valueAt("foreign"), R"({"@type":"x/My.Own","field":1})"},
                    {"notes", "other files are no keys"}}),
              Seen());
}

TEST(FindingList, HasNamesThatLeadOutOfTheFolder) {
    EXPECT_EQ(seen({{"/etc/passwd", "x"}}), Seen{"/etc/passwd: absolute name|INTERNAL"});
    EXPECT_EQ(seen({{"a/../../x", "x"}}), Seen{"a/../../x: \"..\" in the name|INTERNAL"});
    EXPECT_EQ(seen({}, {{"link", "/etc"}}), Seen{"link: neither file nor folder|INTERNAL"});
}

TEST(FindingList, HasNamesThatAreNoText) {
    EXPECT_EQ(seen({{"a\xff", "x"}}), Seen{"a\\xff: the name is no UTF-8|INTERNAL"});
    EXPECT_EQ(seen({{"\xc3\xa4", "x"}}), Seen());
}

TEST(FindingList, HasKeysThatNobodyCanWrite) {
    for (const auto* const place : {"sys/conf/a/data", "sys/conf/mb/0/tuner/data"}) {
        const auto found = seen({{place, savedText("x")}});
        ASSERT_EQ(found.size(), 1U);
        EXPECT_NE(found[0].find(": a value outside of a slice|FAILED_PRECONDITION"),
                  std::string::npos);
    }
    for (const auto* const name : {"data", "data~"}) {
        EXPECT_EQ(seen({{valueAt(std::string("in/") + name + "/a"), savedText("x")}}),
                  Seen{std::string("/sys/conf/mb/0/tuner/in/") + name +
                       "/a: Key has the reserved component " + name + "|FAILED_PRECONDITION"});
    }
    EXPECT_EQ(seen({{valueAt("*"), savedText("x")}}).size(), 1U);
}

TEST(FindingList, HasKeysThatAreTooLong) {
    const auto component = seen({{valueAt(std::string(256, 'k')), savedText("x")}});
    ASSERT_EQ(component.size(), 1U);
    EXPECT_NE(component[0].find(": the name is too long|INTERNAL"), std::string::npos);
    std::string key;
    for (int count = 0; count < 15; ++count) {
        key += (key.empty() ? "" : "/") + std::string(200, 'k');
    }
    const auto whole = seen({{valueAt(key), savedText("x")}});
    ASSERT_EQ(whole.size(), 1U);
    EXPECT_NE(whole[0].find(": Key is longer than 3000 bytes|FAILED"), std::string::npos);
    std::string deep = "a";
    for (int count = 1; count < 124; ++count) {
        deep += "/a";
    }
    const auto components = seen({{valueAt(deep), savedText("x")}});
    ASSERT_EQ(components.size(), 2U);
    EXPECT_NE(components[0].find(": the name is too long|INTERNAL"), std::string::npos);
    EXPECT_NE(components[1].find(": Key has more than 128 components|FAILED"), std::string::npos);
}

TEST(FindingList, HasValuesThatAreLost) {
    const std::string key = "/sys/conf/mb/0/tuner/a";
    EXPECT_EQ(seen({{valueAt("a"), "{}"}}),
              Seen{key + ": empty: a version that did not know its type has lost it|"});
    for (const auto* const text : {"", "no json", "{\"a\":"}) {
        EXPECT_EQ(seen({{valueAt("a"), text}}),
                  Seen{key + ": no JSON: it is loaded as an empty value|"});
    }
    EXPECT_EQ(seen({{valueAt("a"), R"({"value":"x"})"}}),
              Seen{key + ": JSON without a type: it is loaded as an empty value|"});
    EXPECT_EQ(seen({{valueAt("a"), R"({"value":"\"@type\""})"}}),
              Seen{key + ": JSON without a type: it is loaded as an empty value|"});
    for (const auto* const value : {"{}", "1.5", "null,\"more\":1"}) {
        EXPECT_EQ(
            seen({{valueAt("a"),
                   std::string(R"({"@type":"type.googleapis.com/google.protobuf.StringValue",)") +
                       R"("value":)" + value + "}"}}),
            Seen{key + ": it does not fit its type: it is loaded as an empty value|"})
            << value;
    }
}

TEST(FindingList, HasAKeyThatIsNotLoaded) {
    EXPECT_EQ(seen({{valueAt("a\nb"), "no json"}}),
              Seen{"/sys/conf/mb/0/tuner/a\\nb: a line end in the key: it is not loaded|"});
}

TEST(FindingList, HasFilesInTheWayOfFolders) {
    const std::string text = ": a file and a folder of the same name|INTERNAL";
    EXPECT_EQ(seen({{"a", "x"}, {"a/b", "x"}}), Seen{"a" + text});
    EXPECT_EQ(seen({{"x/", ""}, {"./x", "x"}}), Seen{"x" + text});
    EXPECT_EQ(seen({{"x", "1"}, {"x", "2"}, {"x/", ""}, {"y/", ""}, {"y/", ""}}), Seen());
    EXPECT_EQ(seen({{".", "x"}}), Seen{".: a file without a name|INTERNAL"});
}

TEST(FindingList, HasAnArchiveThatCannotBeRead) {
    const auto whole = makePackage({{valueAt("a"), savedText("x")}});
    for (const auto& bytes : {std::string(), std::string("no package"), whole + "more"}) {
        const auto list = findingsIn(bytes);
        ASSERT_EQ(list.findings_size(), 1);
        EXPECT_EQ(list.findings(0).refused_as(), "INTERNAL");
        EXPECT_EQ(list.limit(), exportLimit);
    }
    EXPECT_EQ(findingsIn("").findings(0).text(), "the package cannot be read: No byte at all");
}

TEST(FindingList, HasTooManyEntries) {
    const PackageFiles files(40001, {"a", ""});
    const auto list = findingsIn(makePackage(files));
    ASSERT_EQ(list.findings_size(), 3);
    EXPECT_EQ(list.findings(2).text(), "More entries than an archive may have");
}

TEST(FindingList, HasAMissingIdentity) {
    const auto list = findingsIn(makePackage({{valueAt("a"), savedText("x")}}));
    ASSERT_EQ(list.findings_size(), 2);
    EXPECT_EQ(list.findings(0).where(), "swvariant");
    EXPECT_EQ(list.findings(1).where(), "partno");
    EXPECT_EQ(list.findings(1).text(), "missing: the package counts as one of QAM part 0");
}

TEST(FindingList, HasAnIdentityThatCannotBeRead) {
    const auto found = [](const std::string& variant, const std::string& partNumber) {
        const auto list = findingsIn(makePackage({{"swvariant", variant}, {"partno", partNumber}}));
        EXPECT_EQ(list.findings_size(), 1);
        const auto& finding = list.findings(0);
        return finding.where() + ": " + finding.text() + "|" + finding.refused_as();
    };
    EXPECT_EQ(found("output:QAM\n", "none\n"),
              "partno: the part number is not a number|FAILED_PRECONDITION");
    EXPECT_EQ(found("output:XYZ\n", "0\n"),
              "swvariant: an unknown variant: only a machine of one takes the package|");
    const auto list = findingsIn(makePackage({{"swvariant/", ""}, {"partno", "0\n"}}));
    ASSERT_EQ(list.findings_size(), 1);
    EXPECT_EQ(list.findings(0).refused_as(), "FAILED_PRECONDITION");
}

TEST(FindingList, HasSlicesOfWhichOneWipesTheOther) {
    EXPECT_EQ(seen({{"sys/conf/mb/0/net/a/data", savedText("x")},
                    {"sys/conf/mb/0/network/a/data", savedText("x")},
                    {"sys/conf/mb/1/network2/a/data", savedText("x")}}),
              Seen{"/sys/conf/mb/0/net: replacing it also wipes /sys/conf/mb/0/network|"});
}

TEST(FindingList, HasAnEstimateAboveTheLimit) {
    constexpr std::size_t reserve = 1536 + 32 + 11 + 2;  // with one folder and the identity
    const auto sized = [](std::size_t size) {
        auto files = identity;
        files.push_back({"folder/file", std::string(size, 'x')});
        return findingsIn(makePackage(files));
    };
    const auto fits = sized(exportLimit - reserve);
    EXPECT_EQ(fits.estimate(), exportLimit);
    EXPECT_EQ(fits.findings_size(), 0);
    const auto tooLarge = sized(exportLimit - reserve + 1);
    ASSERT_EQ(tooLarge.findings_size(), 1);
    EXPECT_EQ(tooLarge.findings(0).text(),
              "its estimate is 524289 bytes, and above 524288 it cannot be exported again");
    EXPECT_EQ(tooLarge.findings(0).refused_as(), "");
    const auto huge = sized((std::size_t{8} << 20) + 1);
    EXPECT_EQ(huge.findings(0).text(), "More bytes than an archive may have, at: folder/file");
    EXPECT_EQ(huge.findings(0).refused_as(), "INTERNAL");
}

TEST(FindingList, CountsFoldersOnce) {
    const auto estimate = [](const PackageFiles& files) {
        return exportEstimate(Package(makePackage(files)));
    };
    EXPECT_EQ(estimate({}), 1536U + 32 + 13);
    EXPECT_EQ(estimate({{"a/b/x", "1"}, {"a/b/y", "1"}, {"./a/", ""}}), 1536U + 64 + 13 + 2);
    EXPECT_EQ(estimate({{"x", "1"}, {"x", "123"}}), 1536U + 32 + 13 + 3);
}

}  // namespace

}  // namespace Hox::Ctl
