#include "hox/testing/child_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/types.h>

#include <csignal>
#include <fstream>
#include <iterator>
#include <memory>

#include "hox/testing/wait_until.h"

namespace Hox::Testing {
namespace {

using ::testing::HasSubstr;

TEST(ChildProcess, TellsExitStatusAndOutput) {
    ChildProcess process({"sh", "-c", "echo out; echo err >&2; exit 7"});
    EXPECT_EQ(process.waitForEnd(), 7);
    EXPECT_EQ(process.output(), "out\nerr\n");
    EXPECT_FALSE(process.isRunning());
}

TEST(ChildProcess, TellsTheSignalThatEndedIt) {
    ChildProcess process({"sleep", "infinity"});
    EXPECT_TRUE(process.isRunning());
    process.signal(SIGTERM);
    EXPECT_EQ(process.waitForEnd(), 128 + SIGTERM);
    process.signal(SIGTERM);
}

TEST(ChildProcess, GivesNothingWhileTheProgramGoesOn) {
    ChildProcess process({"sleep", "infinity"});
    EXPECT_EQ(process.waitForEnd(std::chrono::milliseconds(1)), std::nullopt);
}

TEST(ChildProcess, AddsToTheEnvironmentAndReplaces) {
    setenv("CHILD_PROCESS_TEST_KEPT", "kept", 1);
    setenv("CHILD_PROCESS_TEST_REPLACED", "old", 1);
    ChildProcess process(
        {"sh", "-c",
         "echo $CHILD_PROCESS_TEST_KEPT $CHILD_PROCESS_TEST_REPLACED "
         "$CHILD_PROCESS_TEST_ADDED"},
        {{"CHILD_PROCESS_TEST_REPLACED", "new"}, {"CHILD_PROCESS_TEST_ADDED", "a=b"}});
    EXPECT_EQ(process.waitForEnd(), 0);
    EXPECT_EQ(process.output(), "kept new a=b\n");
}

TEST(ChildProcess, EndsWithTheObject) {
    auto process = std::make_unique<ChildProcess>(std::vector<std::string>{"sleep", "infinity"});
    const auto pid = process->pid();
    process.reset();
    EXPECT_EQ(::kill(pid, 0), -1);
}

TEST(ChildProcess, EndsWithItsParent) {
    // The outer shell is in the place of a test that is killed.
    ChildProcess parent(
        {"sh", "-c", "setpriv --pdeathsig KILL sh -c 'echo $$; exec sleep infinity' & wait"});
    ASSERT_TRUE(waitUntil([&] { return parent.output().find('\n') != std::string::npos; }));
    const auto child = parent.output();
    parent.signal(SIGKILL);
    ASSERT_TRUE(parent.waitForEnd());
    // The process that inherits it may ask for its status late.
    EXPECT_TRUE(waitUntil([&] {
        std::ifstream status("/proc/" + child.substr(0, child.size() - 1) + "/status");
        const std::string text(std::istreambuf_iterator<char>(status), {});
        return text.empty() || text.find("State:\tZ") != std::string::npos;
    }));
}

TEST(ChildProcess, TellsThatThereIsNoSuchProgram) {
    ChildProcess process({"/nowhere/program"});
    EXPECT_EQ(process.waitForEnd(), 127);
    EXPECT_THAT(process.output(), HasSubstr("/nowhere/program"));
}

TEST(ChildProcess, StartsWithoutTheTestsBlockedSignals) {
    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    sigset_t former;
    pthread_sigmask(SIG_BLOCK, &term, &former);
    ChildProcess process({"sleep", "infinity"});
    pthread_sigmask(SIG_SETMASK, &former, nullptr);
    process.signal(SIGTERM);
    EXPECT_EQ(process.waitForEnd(), 128 + SIGTERM);
}

}  // namespace
}  // namespace Hox::Testing
