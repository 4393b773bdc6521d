#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "hox/observer_tree/status.h"
#include "store_under_fault.h"

namespace fs = std::filesystem;

namespace Hox::Capability::Configuration {
namespace {

using Hox::ObserverTree::ProtoStatus;
using Hox::Testing::Fault;
using Hox::Testing::FileCall;
using Hox::Testing::FileCalls;
using Hox::Testing::WatchedRun;
using ::testing::AnyOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr int keys = 2;
constexpr std::array errors = {ENOSPC, EIO, EACCES, EROFS, EMFILE, EDQUOT};

constexpr const char* unpackFailed = "Unable to unpack to filesystem - Error ";
constexpr const char* packFailed = "Unable to pack from filesystem - Error ";

/// Each call of an operation on the store's files fails, one after the other: each with one of the
/// errors, or with all of them.
class FailingCall : public ::testing::TestWithParam<Operation> {
protected:
    FailingCall() : m_calls(m_store.run(m_operation, FileCalls::All).calls) {}

    std::vector<Fault> faultsAt(std::size_t number) const {
        std::vector<Fault> faults;
        const FileCall& call = m_calls[number];
        for (std::size_t kind = 0; kind < errors.size(); ++kind) {
            if (allFaults() || number % errors.size() == kind) {
                faults.push_back({number, errors[kind]});
                // A disk that cannot be written to stays so, because some calls are retried.
                if (call.changes && call.name != "renameat2") {
                    faults.push_back({number, errors[kind], true});
                }
            }
        }
        if (call.name == "write") {
            faults.push_back(Fault::half(number));
        }
        return faults;
    }

    void expectOutcome(const WatchedRun& run, const Fault& fault) {
        const FileCall& call = m_calls[fault.call];
        m_ends += run.signal != 0 ? 1 : 0;
        if (call.name == "renameat2") {
            EXPECT_EQ(run.signal, SIGABRT);
            EXPECT_THAT(run.errors, HasSubstr("\natomic rename exchange failed with errno " +
                                              std::to_string(fault.error) + "\n"));
            EXPECT_EQ(m_store.whatIsSaved(), m_store.oldCopy());
        } else if (!run.answer && m_operation == Operation::Start) {
            EXPECT_EQ(run.signal, 0);
            EXPECT_THAT(run.errors, HasSubstr("exception: filesystem error: "));
            EXPECT_THAT(run.errors, HasSubstr(std::generic_category().message(fault.error)));
            EXPECT_EQ(m_store.whatIsSaved(), m_store.oldCopy());
            ++m_refused;
        } else {
            ASSERT_TRUE(run.answer) << run.errors;
            expectAnswer(run, fault);
        }
    }

    /// There is nothing between a complete success and a refusal that has changed nothing.
    void expectAnswer(const WatchedRun& run, const Fault& fault) {
        const auto answer = answerOf(run);
        const bool isDone = answer.code == ProtoStatus::OK;
        if (!isDone) {
            ++m_refused;
            expectRefusal(answer, fault);
        } else if (m_operation == Operation::Export) {
            EXPECT_EQ(StoreUnderFault::contentOf(answer.package), m_store.oldCopy());
        }
        EXPECT_EQ(m_store.whatIsSaved(), isDone ? m_store.newCopy(m_operation) : m_store.oldCopy());
        EXPECT_EQ(answer.workingCopy,
                  isDone ? m_store.newWorkingCopy(m_operation) : m_store.workingCopy());
        const bool isTold =
            run.errors.find("[warning] Left over: filesystem error: ") != std::string::npos;
        const bool isScratchUsed = m_operation != Operation::Discard &&
                                   m_operation != Operation::Export &&
                                   m_operation != Operation::Start;
        EXPECT_TRUE(!isScratchUsed || isTold || !fs::exists(m_store.scratch()) ||
                    fault.call < scratchMade())
            << "what is left over is told";
    }

    void expectRefusal(const OperationAnswer& answer, const Fault& fault) const {
        const std::string reason = std::generic_category().message(fault.error);
        switch (m_operation) {
            case Operation::Export:
                EXPECT_EQ(answer.code, ProtoStatus::INTERNAL);
                EXPECT_THAT(answer.message, StartsWith(packFailed));
                return;
            case Operation::ImportOfAnotherMachine:
                if (answer.code == ProtoStatus::INVALID_ARGUMENT) {
                    return;
                }
                [[fallthrough]];
            case Operation::Import:
                if (fault.call > scratchMade() && fault.call < unpacked()) {
                    EXPECT_EQ(answer.code, ProtoStatus::INTERNAL);
                    EXPECT_THAT(answer.message, StartsWith(unpackFailed));
                    EXPECT_THAT(answer.message, HasSubstr(m_store.scratch().string()));
                    EXPECT_THAT(answer.message, HasSubstr(reason));
                    return;
                }
                break;
            case Operation::Save:
            case Operation::Clear:
            case Operation::Discard:
            case Operation::Start:
                break;
        }
        EXPECT_EQ(answer.code, ProtoStatus::FAILED_PRECONDITION);
        EXPECT_THAT(answer.message, StartsWith("filesystem error: "));
        EXPECT_THAT(answer.message, HasSubstr(m_store.saved().string()));
        EXPECT_THAT(answer.message, HasSubstr(reason));
    }

    template <typename Predicate>
    std::size_t find(Predicate predicate) const {
        return static_cast<std::size_t>(std::find_if(m_calls.begin(), m_calls.end(), predicate) -
                                        m_calls.begin());
    }
    /// The call that opens the scratch folder after its creation.
    std::size_t scratchMade() const {
        const std::size_t made = find([this](const FileCall& call) {
            return call.name == "mkdirat" && call.path == m_store.scratch();
        });
        return find([this, made](const FileCall& call) {
            return &call - m_calls.data() > static_cast<std::ptrdiff_t>(made) &&
                   call.name == "openat" && call.path == m_store.scratch();
        });
    }
    /// The first access to the unpacked content.
    std::size_t unpacked() const {
        return find([this](const FileCall& call) {
            return !call.changes && call.name != "close" &&
                   call.path == m_store.scratch() / "swvariant";
        });
    }

    const Operation m_operation = GetParam();
    StoreUnderFault m_store{keys};
    const std::vector<FileCall> m_calls;
    std::size_t m_tried = 0;
    std::size_t m_refused = 0;
    std::size_t m_ends = 0;
};

TEST_P(FailingCall, IsAnsweredAndLeavesAWholeCopy) {
    for (std::size_t number = 0; number < m_calls.size(); ++number) {
        if (!m_store.isOwn(m_calls[number]) || (isSanitized() && number % 5 != 0)) {
            continue;
        }
        for (const Fault& fault : faultsAt(number)) {
            SCOPED_TRACE(describe(m_operation, number, m_calls[number]) + " errno " +
                         std::to_string(fault.error) + (fault.lasting ? ", lasting" : ""));
            const auto run = m_store.run(m_operation, FileCalls::All, fault);
            ++m_tried;
            expectOutcome(run, fault);
            const auto next = m_store.runNext(Operation::Save);
            ASSERT_TRUE(next.answer) << next.errors;
            EXPECT_EQ(answerOf(next).code, ProtoStatus::OK) << answerOf(next).message;
            EXPECT_FALSE(fs::exists(m_store.scratch()));
            ASSERT_FALSE(HasFailure()) << run.errors;
        }
    }
    RecordProperty("tried", static_cast<int>(m_tried));
    RecordProperty("refused", static_cast<int>(m_refused));
    std::printf("%zu calls, %zu faults, %zu refused, %zu ends of the process\n", m_calls.size(),
                m_tried, m_refused, m_ends);
    EXPECT_GT(m_refused, isSanitized() ? 3U : 10U);
}

INSTANTIATE_TEST_SUITE_P(All, FailingCall,
                         ::testing::Values(Operation::Save, Operation::Import,
                                           Operation::ImportOfAnotherMachine, Operation::Clear,
                                           Operation::Discard, Operation::Export, Operation::Start),
                         [](const auto& param) { return nameOf(param.param); });

/// The order of calls that is safe against a loss of power.
class FlushedOperation : public ::testing::TestWithParam<Operation> {};

TEST_P(FlushedOperation, IsOnTheDiskAheadOfTheExchangeAndBehindIt) {
    StoreUnderFault store(keys);
    std::vector<std::string> order;
    std::size_t lastWrite = 0;
    const auto calls = store.run(GetParam(), FileCalls::All).calls;
    for (std::size_t number = 0; number < calls.size(); ++number) {
        const auto& [name, path, changes] = calls[number];
        if (name == "syncfs" || name == "renameat2" || name == "sync") {
            order.push_back(name + " " + path);
        } else if (changes && order.empty()) {
            lastWrite = number;
        } else if (changes) {
            EXPECT_THAT(name, AnyOf("rmdir", "unlink", "unlinkat")) << "the old copy and the guide";
        }
    }
    EXPECT_GT(lastWrite, 0U);
    EXPECT_THAT(order, ::testing::ElementsAre("syncfs " + store.scratch().string(),
                                              "renameat2 " + store.scratch().string(), "sync "));
}

INSTANTIATE_TEST_SUITE_P(All, FlushedOperation,
                         ::testing::Values(Operation::Save, Operation::Import, Operation::Clear),
                         [](const auto& param) { return nameOf(param.param); });

}  // namespace
}  // namespace Hox::Capability::Configuration
