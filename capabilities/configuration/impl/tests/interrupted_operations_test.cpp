#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "store_under_fault.h"

namespace fs = std::filesystem;

namespace Hox::Capability::Configuration {
namespace {

using Hox::Testing::Fault;
using Hox::Testing::FileCall;
using Hox::Testing::FileCalls;

/// The number of the first call of that name; one past the last call if there is none.
std::size_t find(const std::string& name, const std::vector<FileCall>& calls) {
    const auto found = std::find_if(calls.begin(), calls.end(),
                                    [&name](const FileCall& call) { return call.name == name; });
    return static_cast<std::size_t>(found - calls.begin());
}

std::vector<int> keyCounts() {
    return isSanitized() ? std::vector<int>{0, 10} : std::vector<int>{0, 1, 10, 100};
}

class InterruptedOperation : public ::testing::TestWithParam<std::tuple<Operation, int>> {
protected:
    const Operation m_operation = std::get<0>(GetParam());
    const int m_keys = std::get<1>(GetParam());
    StoreUnderFault m_store{m_keys};

    /// Checks the folder directly after a kill at that call.
    void expectAWholeCopy(const std::vector<FileCall>& calls, std::size_t number) const {
        ASSERT_EQ(m_store.whatIsSaved(), number > find("renameat2", calls)
                                             ? m_store.newCopy(m_operation)
                                             : m_store.oldCopy());
        if (number <= find("sync", calls)) {
            ASSERT_TRUE(fs::exists(m_store.guide() / "guide/today")) << "goes last";
        }
    }

    /// Checks that leftovers do not prevent a new start.
    void expectAFreshStart(std::size_t number) {
        constexpr Operation operations[] = {Operation::Save, Operation::Import, Operation::Clear};
        const Operation next = operations[number % 3];
        const std::string before = m_store.whatIsSaved();
        const auto run = m_store.runNext(next);
        ASSERT_TRUE(run.answer) << nameOf(next) << run.errors;
        ASSERT_EQ(answerOf(run).code, 0) << nameOf(next) << answerOf(run).message;
        ASSERT_FALSE(fs::exists(m_store.scratch())) << nameOf(next);
        ASSERT_EQ(m_store.whatIsSaved(), next == Operation::Save ? before : m_store.newCopy(next))
            << nameOf(next);
    }
};

TEST_P(InterruptedOperation, LeavesTheWholeOldOrTheWholeNewCopy) {
    const auto calls = m_store.run(m_operation, FileCalls::Changing).calls;
    std::size_t looks = 0;
    const auto whole = m_store.run(m_operation, FileCalls::Changing, std::nullopt,
                                   [&](std::size_t number, const FileCall& call) {
                                       if (number % (isSanitized() ? 7 : 1) == 0) {
                                           SCOPED_TRACE(describe(m_operation, number, call));
                                           expectAWholeCopy(calls, number);
                                           ++looks;
                                       }
                                   });
    ASSERT_TRUE(whole.answer) << whole.errors;
    EXPECT_EQ(whole.calls.size(), calls.size());
    EXPECT_EQ(looks == 0, m_operation == Operation::Discard) << "which only reads";
    EXPECT_EQ(m_store.whatIsSaved(), m_store.newCopy(m_operation));
}

TEST_P(InterruptedOperation, LeavesNothingInTheWayOfTheNextOne) {
    const auto whole = m_store.run(m_operation, FileCalls::Changing);
    ASSERT_TRUE(whole.answer) << whole.errors;
    const auto& calls = whole.calls;
    std::size_t kills = 0;
    const std::size_t exchange = find("renameat2", calls);
    const std::size_t stride = std::max<std::size_t>(calls.size() / (isSanitized() ? 5 : 100), 1);
    for (std::size_t number = 0; number < calls.size(); ++number) {
        const bool isNearExchange = number + 2 >= exchange && number <= exchange + 2;
        if (number % stride != 0 && !isNearExchange) {
            continue;
        }
        SCOPED_TRACE(describe(m_operation, number, calls[number]));
        const auto run = m_store.run(m_operation, FileCalls::Changing, Fault{number, 0});
        ASSERT_EQ(run.signal, SIGKILL) << run.errors;
        ASSERT_EQ(run.calls.size(), number + 1);
        ASSERT_EQ(run.calls.back().name, calls[number].name);
        ASSERT_NO_FATAL_FAILURE(expectAWholeCopy(calls, number));
        ASSERT_NO_FATAL_FAILURE(expectAFreshStart(number));
        ++kills;
    }
    EXPECT_EQ(kills == 0, m_operation == Operation::Discard) << "which only reads";
}

INSTANTIATE_TEST_SUITE_P(All, InterruptedOperation,
                         ::testing::Combine(::testing::Values(Operation::Save, Operation::Import,
                                                              Operation::ImportOfAnotherMachine,
                                                              Operation::Clear, Operation::Discard,
                                                              Operation::Export),
                                            ::testing::ValuesIn(keyCounts())),
                         [](const auto& param) {
                             return std::string(nameOf(std::get<0>(param.param))) + "Of" +
                                    std::to_string(std::get<1>(param.param));
                         });

}  // namespace
}  // namespace Hox::Capability::Configuration
