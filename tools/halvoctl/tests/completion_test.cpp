#include "completion.h"

#include <gtest/gtest.h>

#include "run_tool.h"

namespace Hox::Ctl {

namespace {

/// What the tool prints for a line without a service.
std::string completed(const std::string& line) {
    Tool tool;
    tool.environment["XDG_STATE_HOME"] = "/nonexistent";
    const auto run = tool.run({"__complete", line});
    EXPECT_EQ(run.code, ExitCode::Done);
    EXPECT_EQ(run.err, "");
    return run.out;
}

TEST(Completion, ALineIsSplitAtBlanks) {
    EXPECT_EQ(splitLine("halvoctl  watch '/a b/**' "),
              (std::vector<std::string>{"halvoctl", "watch", "/a b/**", ""}));
    EXPECT_EQ(splitLine("halvoctl \"sta"), (std::vector<std::string>{"halvoctl", "sta"}));
}

TEST(Completion, CommandsAreCompleted) {
    EXPECT_EQ(completed("halvoctl sn"), "snmp\n");
    EXPECT_EQ(completed("halvoctl conf re"), "revert\n");
    EXPECT_EQ(completed("halvoctl -e head:1 -o json conf pe"), "pending\n");
    EXPECT_EQ(completed("halvoctl nothing"), "");
    EXPECT_EQ(completed("halvoctl __"), "");
}

TEST(Completion, OptionsAndTheirValuesAreCompleted) {
    EXPECT_EQ(completed("halvoctl conf import --dis"), "--discard-unsaved\n");
    EXPECT_EQ(completed("halvoctl conf rollback --a"), "--auto\n");
    EXPECT_EQ(completed("halvoctl state --ti"), "--timeout\n");
    EXPECT_EQ(completed("halvoctl -o "), "json\njsonl\ntable\n");
    EXPECT_EQ(completed("halvoctl log set x tr"), "trace\n");
    EXPECT_EQ(completed("halvoctl state --fail-on w"), "warn\n");
    EXPECT_EQ(completed("halvoctl -e "), "");
}

TEST(Completion, WithoutAServiceNothingIsSaid) {
    EXPECT_EQ(completed("halvoctl -e localhost:1 call "), "");
    EXPECT_EQ(completed("halvoctl -e localhost:1 log ls "), "");
    EXPECT_EQ(completed("halvoctl --timeout soon log ls "), "");
    EXPECT_EQ(completed("halvoctl conf confirm "), "");
}

TEST(Completion, TheScriptsAreForTheirShells) {
    Tool tool;
    EXPECT_NE(tool.run({"completion", "bash"}).out.find("complete -o default"), std::string::npos);
    EXPECT_NE(tool.run({"completion", "zsh"}).out.find("compdef _halvoctl"), std::string::npos);
    EXPECT_EQ(tool.run({"completion", "fish"}).code, ExitCode::Usage);
}

}  // namespace

}  // namespace Hox::Ctl
