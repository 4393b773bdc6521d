#include "run_program.h"

#include <gtest/gtest.h>

#include "ctl_error.h"
#include "pack_files.h"
#include "package_entry.h"

namespace Hox::Ctl {

namespace {

TEST(RunProgram, ReturnsTheOutput) {
    EXPECT_EQ(outputOf({"echo", "text"}, std::chrono::seconds(20)), "text\n");
    EXPECT_EQ(outputOf({"head", "-c", "300000", "/dev/zero"}, std::chrono::seconds(20)).size(),
              300000U);
}

TEST(RunProgram, AFailureIsAnError) {
    const auto failure = [](const std::vector<std::string>& words) {
        try {
            outputOf(words, std::chrono::milliseconds(200));
        } catch (const CtlError& error) {
            return std::string(error.what());
        }
        return std::string();
    };
    EXPECT_EQ(failure({"halvoctl-no-such-program"}),
              "halvoctl-no-such-program: No such file or directory");
    EXPECT_EQ(failure({"false"}), "false: has failed");
    EXPECT_EQ(failure({"sleep", "100"}), "sleep: takes too long");
}

TEST(PackFiles, AreReadAsTheyWere) {
    const auto archive = packFiles({{"a/b", "1"}, {"\xc3\xa4", std::string(300000, 'x')}});
    const auto entries = readPackageEntries(archive);
    ASSERT_EQ(entries.size(), 2U);
    EXPECT_EQ(entries[0].path, "a/b");
    EXPECT_EQ(entries[0].content, "1");
    EXPECT_EQ(entries[1].path, "\xc3\xa4");
    EXPECT_EQ(entries[1].content.size(), 300000U);
}

}  // namespace

}  // namespace Hox::Ctl
