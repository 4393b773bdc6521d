#include <google/protobuf/util/json_util.h>
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <iostream>

#include "hox/testing/temp_dir.h"
#include "make_package.h"
#include "package.pb.h"
#include "run_tool.h"

namespace Hox::Ctl {

namespace {

/// Two packages in files; no service runs.
class PackageCommandsTest : public ::testing::Test {
protected:
    PackageCommandsTest() {
        write(
            m_old,
            {{"freq", savedText("474000")}, {"gone", savedText("x")}, {"__csid", savedText("1")}});
        write(m_new, {{"freq", savedText("482000")}, {"late", "{}"}, {"__csid", savedText("2")}});
    }

    void write(const std::string& path, const PackageFiles& values) {
        PackageFiles files{{"swvariant", "output:QAM\n"}, {"partno", "0\n"}};
        for (const auto& [key, text] : values) {
            files.emplace_back("sys/conf/mb/0/tuner/" + key + "/data", text);
        }
        std::ofstream(path, std::ios::binary) << makePackage(files);
    }

    ToolRun run(std::vector<std::string> words) {
        words.insert(words.begin(), "conf");
        words.insert(words.end(), {"-e", "localhost:1"});
        return m_tool.run(words);
    }

    Testing::TempDir m_folder;
    std::string m_old = m_folder / "old";
    std::string m_new = m_folder / "new";
    Tool m_tool;
};

TEST_F(PackageCommandsTest, KeysAreListed) {
    const auto plain = run({"ls", m_old});
    EXPECT_EQ(plain.code, ExitCode::Done) << plain.err;
    EXPECT_EQ(
        plain.out,
        "/sys/conf/mb/0/tuner/__csid\n/sys/conf/mb/0/tuner/freq\n/sys/conf/mb/0/tuner/gone\n");
    EXPECT_EQ(run({"ls", "-l", m_new}).out,
              "BYTES  KEY                          VALUE\n"
              "71     /sys/conf/mb/0/tuner/__csid  \"2\"\n"
              "76     /sys/conf/mb/0/tuner/freq    \"482000\"\n"
              "2      /sys/conf/mb/0/tuner/late    {}\n");
    PackageContent content;
    ASSERT_TRUE(
        google::protobuf::util::JsonStringToMessage(run({"ls", m_old, "-o", "json"}).out, &content)
            .ok());
    EXPECT_EQ(content.identity(), "QAM part 0");
    ASSERT_EQ(content.keys_size(), 3);
    EXPECT_EQ(content.keys(1).bytes(), 76U);
    EXPECT_TRUE(content.keys(1).value().has_struct_value());
}

TEST_F(PackageCommandsTest, AValueIsPrintedWithoutQuotes) {
    EXPECT_EQ(run({"get", "/sys/conf/mb/0/tuner/freq", m_old}).out, "474000\n");
    EXPECT_EQ(run({"get", "/sys/conf/mb/0/tuner/late", m_new}).out, "{}\n");
    PackageKey entry;
    ASSERT_TRUE(google::protobuf::util::JsonStringToMessage(
                    run({"get", "/sys/conf/mb/0/tuner/freq", m_old, "-o", "jsonl"}).out, &entry)
                    .ok());
    EXPECT_EQ(entry.key(), "/sys/conf/mb/0/tuner/freq");
    EXPECT_TRUE(entry.value().has_struct_value());
    const auto missing = run({"get", "/x", m_old});
    EXPECT_EQ(missing.code, ExitCode::No);
    EXPECT_EQ(missing.err,
              "halvoctl: the package has no key \"/x\"\n"
              "hint: halvoctl conf ls lists all keys\n");
}

TEST_F(PackageCommandsTest, DifferencesAreOldAndNewValues) {
    const auto found = run({"diff", m_old, m_new});
    EXPECT_EQ(found.code, ExitCode::No);
    EXPECT_EQ(found.out,
              "~ /sys/conf/mb/0/tuner/freq: \"474000\" -> \"482000\"\n"
              "- /sys/conf/mb/0/tuner/gone: \"x\"\n"
              "+ /sys/conf/mb/0/tuner/late: {}\n"
              "1 changed, 1 added, 1 removed (state ids left out)\n");
    const auto same = run({"diff", m_old, m_old});
    EXPECT_EQ(same.code, ExitCode::Done);
    EXPECT_EQ(same.out, "0 changed, 0 added, 0 removed (state ids left out)\n");
    const auto json = run({"diff", m_old, m_new, "-o", "json"});
    EXPECT_EQ(json.code, ExitCode::No);
    PackageDifference difference;
    ASSERT_TRUE(google::protobuf::util::JsonStringToMessage(json.out, &difference).ok());
    EXPECT_EQ(difference.changes_size(), 3);
    EXPECT_FALSE(difference.changes(2).has_old_value());
}

TEST_F(PackageCommandsTest, ADifferentMachineIsNoted) {
    std::ofstream(m_new, std::ios::binary) << makePackage({{"swvariant", "output:COFDM\n"}});
    EXPECT_EQ(run({"diff", m_old, m_new}).err,
              "halvoctl: the packages are for different machines: QAM part 0 and COFDM part 0\n");
}

TEST_F(PackageCommandsTest, FindingsAreALineEach) {
    const auto good = run({"lint", m_old});
    EXPECT_EQ(good.code, ExitCode::Done);
    EXPECT_EQ(good.out, "0 findings; 2023 of 524288 bytes by the estimate for an export\n");
    const auto bad = run({"lint", m_new});
    EXPECT_EQ(bad.code, ExitCode::No);
    EXPECT_EQ(bad.out.substr(0, bad.out.find(';')),
              "/sys/conf/mb/0/tuner/late: empty: a version that did not know its type has lost it\n"
              "1 finding");
    FindingList list;
    ASSERT_TRUE(
        google::protobuf::util::JsonStringToMessage(run({"lint", m_new, "-o", "json"}).out, &list)
            .ok());
    EXPECT_EQ(list.findings(0).where(), "/sys/conf/mb/0/tuner/late");
}

TEST_F(PackageCommandsTest, WhatCannotBeReadIsAnError) {
    std::ofstream(m_old) << "no package";
    for (const std::vector<std::string>& words : {std::vector<std::string>{"ls", m_old},
                                                  {"get", "/a", m_old},
                                                  {"diff", m_new, m_old},
                                                  {"ls", "/nonexistent"},
                                                  {"lint", "/nonexistent"},
                                                  {"verify", "--here", "/nonexistent"}}) {
        const auto found = run(words);
        EXPECT_EQ(found.code, ExitCode::Usage);
        EXPECT_EQ(found.out, "");
        EXPECT_NE(found.err, "");
    }
    EXPECT_EQ(run({"ls"}).code, ExitCode::Unreachable);
}

TEST_F(PackageCommandsTest, WhatNoServiceCanReadIsRefused) {
    std::ofstream(m_old) << "no package";
    const auto lint = run({"lint", m_old});
    EXPECT_EQ(lint.code, ExitCode::No);
    EXPECT_EQ(lint.out.find("the package cannot be read: "), 0U) << lint.out;
    EXPECT_NE(lint.out.find(" (refused)\n1 finding; "), std::string::npos) << lint.out;
    const auto verify = run({"verify", "--here", m_old});
    EXPECT_EQ(verify.code, ExitCode::No);
    EXPECT_EQ(verify.out.find("refused: INTERNAL: the package cannot be read: "), 0U) << verify.out;
}

TEST_F(PackageCommandsTest, AKeyThatIsNoTextIsPrintedEscaped) {
    write(m_new, {{"a\xff", savedText("x")}});
    PackageDifference difference;
    ASSERT_TRUE(google::protobuf::util::JsonStringToMessage(
                    run({"diff", m_old, m_new, "-o", "json"}).out, &difference)
                    .ok());
    EXPECT_EQ(difference.changes(0).key(), "/sys/conf/mb/0/tuner/a\\xff");
    EXPECT_EQ(run({"diff", m_old, m_new}).out.find("+ /sys/conf/mb/0/tuner/a\\xff: \"x\"\n"), 0U);
}

TEST_F(PackageCommandsTest, APackageMayComeFromTheInput) {
    m_tool.in = makePackage({{"sys/conf/mb/0/tuner/a/data", savedText("x")}});
    EXPECT_EQ(run({"ls", "-"}).out, "/sys/conf/mb/0/tuner/a\n");
}

TEST_F(PackageCommandsTest, TextsOfAPackageCannotControlTheTerminal) {
    write(m_old, {{"a\x1b[2J", savedText("\\u001b[2J")}, {"b", "\x1b[2J"}});
    for (const auto* const command : {"ls", "lint"}) {
        EXPECT_EQ(run({command, m_old}).out.find('\x1b'), std::string::npos) << command;
    }
    EXPECT_EQ(run({"diff", m_new, m_old}).out.find('\x1b'), std::string::npos);
    EXPECT_EQ(run({"ls", "-l", m_old}).out.find('\x1b'), std::string::npos);
    write(m_new, {{"a", savedText("\\u001b[2J")}});
    EXPECT_EQ(run({"get", "/sys/conf/mb/0/tuner/a", m_new}).out, "\x1b[2J\n");
    m_tool.isOutTerminal = true;
    EXPECT_EQ(run({"get", "/sys/conf/mb/0/tuner/a", m_new}).out, "\\x1b[2J\n");
}

TEST_F(PackageCommandsTest, TheLargestPackageTakesLittleTime) {
    PackageFiles values;
    for (int number = 0; number < 4500; ++number) {
        values.emplace_back("input/" + std::to_string(number), savedText(std::to_string(number)));
    }
    write(m_old, values);
    values.resize(4490);
    write(m_new, values);
    for (const std::vector<std::string>& words :
         {std::vector<std::string>{"ls", m_old}, {"diff", m_old, m_new}, {"lint", m_old}}) {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_NE(run(words).out, "");
        const std::chrono::duration<double, std::milli> time =
            std::chrono::steady_clock::now() - start;
        std::cout << "conf " << words.front() << ": " << time.count() << " ms\n";
    }
    EXPECT_NE(run({"lint", m_old}).out.find("0 findings; "), std::string::npos);
}

}  // namespace

}  // namespace Hox::Ctl
