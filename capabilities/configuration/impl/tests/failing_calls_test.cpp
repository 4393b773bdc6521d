#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "hox/observer_tree/status.h"
#include "store_under_fault.h"
#include "system_identity.h"

namespace fs = std::filesystem;

namespace Hox::Capability::Configuration {
namespace {

using Hox::ObserverTree::ProtoStatus;
using Hox::Testing::Fault;
using Hox::Testing::FileCall;
using Hox::Testing::FileCalls;
using Hox::Testing::WatchedRun;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr int keys = 2;

constexpr const char* unpackFailed = "Unable to unpack to filesystem - Error ";
constexpr const char* packFailed = "Unable to pack from filesystem - Error ";
constexpr const char* incompatible = "The configuration file is not compatible with this system";

bool endsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

/// The values by their keys, without the value of a file that could not be opened.
std::map<std::string, std::string> valuesOf(const std::string& content, const FileCall& failed) {
    constexpr std::string_view start = "key: \"";
    std::map<std::string, std::string> values;
    for (std::size_t place = content.find(start); place != std::string::npos;) {
        place += start.size();
        const std::size_t next = content.find(start, place);
        const std::string key = content.substr(place, content.find('"', place) - place);
        const bool isUnread = !failed.changes && endsWith(failed.path, key + "/data");
        values[key] = isUnread ? "" : content.substr(place, next - place);
        place = next;
    }
    return values;
}

/// Whether a full or failing disk shows at that call. Writes are another matter, see below.
bool canFail(const FileCall& call) {
    constexpr std::array names = {"mkdir",    "mkdirat", "open",     "openat",    "rename",
                                  "renameat", "unlink",  "unlinkat", "renameat2", "rmdir"};
    return std::find(names.begin(), names.end(), call.name) != names.end() &&
           call.path.compare(0, 5, "/etc/") != 0;
}

class FailingCall : public ::testing::TestWithParam<std::tuple<Operation, int>> {
protected:
    FailingCall() {
        m_calls = m_store.run(m_operation, FileCalls::ChangingAndOpening).calls;
        m_exchange = find([](const FileCall& call) { return call.name == "renameat2"; });
        m_synced = find([](const FileCall& call) { return call.name == "sync"; });
        m_scratchMade = find([this](const FileCall& call) {
            return call.name == "mkdir" && call.path == m_store.scratch();
        });
    }

    template <typename Predicate>
    std::size_t find(Predicate predicate) const {
        return static_cast<std::size_t>(std::find_if(m_calls.begin(), m_calls.end(), predicate) -
                                        m_calls.begin());
    }

    void expectEnd(const WatchedRun& run, const std::string& text) const {
        EXPECT_EQ(run.signal, SIGABRT);
        EXPECT_THAT(run.errors, HasSubstr("Assertion failed: [false] \nat:"));
        EXPECT_THAT(run.errors, HasSubstr(text));
    }

    static void expectAnswer(const WatchedRun& run, ProtoStatus::StatusCode code,
                             const std::string& start) {
        ASSERT_TRUE(run.answer) << run.errors;
        EXPECT_EQ(answerOf(run).code, code) << answerOf(run).message;
        EXPECT_THAT(answerOf(run).message, StartsWith(start));
    }

    /// What becomes of an operation that replaces the saved copy.
    void expectOutcome(const WatchedRun& run, std::size_t number) const {
        const FileCall& call = m_calls[number];
        if (number == m_exchange) {
            expectEnd(run, "\natomic rename exchange failed with errno " + std::to_string(m_error) +
                               "\n");
        } else if (number > m_synced && call.path != m_store.saved()) {
            expectAnswer(run, ProtoStatus::OK, "");
            EXPECT_TRUE(fs::exists(m_store.guide())) << "what cannot be removed stays, unnoticed";
        } else if (isImport() && number > m_scratchMade &&
                   number < std::min(m_exchange, removal())) {
            expectOutcomeOfUnpacking(run, call);
        } else {
            expectEnd(run, "filesystem error: ");
        }
    }

    bool isImport() const {
        return m_operation == Operation::Import || m_operation == Operation::ImportOfAnotherMachine;
    }

    /// Where the scratch directory of a refused package begins to go.
    std::size_t removal() const {
        return m_operation == Operation::Import
                   ? m_calls.size()
                   : find([this](const FileCall& call) {
                         const auto place = static_cast<std::size_t>(&call - m_calls.data());
                         return place > m_scratchMade && call.path == m_store.scratch();
                     });
    }

    void expectOutcomeOfUnpacking(const WatchedRun& run, const FileCall& call) const {
        if (call.changes) {
            expectAnswer(run, ProtoStatus::INTERNAL,
                         unpackFailed + ("Archiving error: Can't create '" + call.path + "'"));
            EXPECT_TRUE(fs::exists(m_store.scratch())) << "stays until the next operation";
            return;
        }
        if (endsWith(call.path, "/swvariant") || m_operation != Operation::Import) {
            expectAnswer(run, ProtoStatus::INVALID_ARGUMENT, incompatible);
        } else if (endsWith(call.path, "/partno")) {
            const bool isNoNumber = readSystemIdentity().partNumber == 0;
            expectAnswer(run, isNoNumber ? ProtoStatus::OK : ProtoStatus::INVALID_ARGUMENT,
                         isNoNumber ? "" : incompatible);
        } else if (endsWith(call.path, "/data")) {
            expectAnswer(run, ProtoStatus::OK, "");  // a value that cannot be read is an empty one
        } else {
            expectAnswer(run, ProtoStatus::FAILED_PRECONDITION, "filesystem error: ");
        }
        EXPECT_FALSE(fs::exists(m_store.scratch()));
    }

    void expectOutcomeOfReading(const WatchedRun& run, const FileCall& call) const {
        if (m_operation == Operation::Discard && !endsWith(call.path, "/data")) {
            expectEnd(run, "filesystem error: ");
        } else if (m_operation == Operation::Discard) {
            expectAnswer(run, ProtoStatus::OK, "");
        } else if (call.changes || !run.answer || answerOf(run).code != ProtoStatus::OK) {
            expectAnswer(run, ProtoStatus::INTERNAL, packFailed);
        } else {
            // Some opens are only tries: the package is whole all the same.
            EXPECT_EQ(StoreUnderFault::contentOf(answerOf(run).package), m_store.oldCopy());
        }
    }

    /// The copy in force: the new one once it has been exchanged or accepted whatever failed.
    std::string expectedCopy(const WatchedRun& run, std::size_t number) const {
        const bool isDone = run.answer && answerOf(run).code == ProtoStatus::OK;
        return number > m_exchange || isDone ? m_store.newCopy(m_operation) : m_store.oldCopy();
    }

    /// Whatever fails: an operation that is refused leaves the working copy as it was, and one that
    /// is not does with it all that it does.
    void expectWorkingCopy(const WatchedRun& run, const FileCall& call) const {
        if (!run.answer) {
            return;
        }
        const auto answer = answerOf(run);
        const bool isDone = answer.code == ProtoStatus::OK;
        EXPECT_EQ(
            valuesOf(answer.workingCopy, call),
            valuesOf(isDone ? m_store.newWorkingCopy(m_operation) : m_store.workingCopy(), call));
    }

    const Operation m_operation = std::get<0>(GetParam());
    const int m_error = std::get<1>(GetParam());
    StoreUnderFault m_store{keys};
    std::vector<FileCall> m_calls;
    std::size_t m_exchange = 0;
    std::size_t m_synced = 0;
    std::size_t m_scratchMade = 0;
};

TEST_P(FailingCall, LeavesAWholeCopyAndIsAnsweredOrEndsTheProcess) {
    std::size_t tried = 0;
    for (std::size_t number = 0; number < m_calls.size(); ++number) {
        if (!canFail(m_calls[number]) || (isSanitized() && number % 5 != 0)) {
            continue;
        }
        ++tried;
        SCOPED_TRACE(describe(m_operation, number, m_calls[number]));
        // A disk that cannot be written to stays so: some calls are tried again.
        const auto run = m_store.run(m_operation, FileCalls::ChangingAndOpening,
                                     Fault{number, m_error, m_calls[number].changes});
        if (m_operation == Operation::Discard || m_operation == Operation::Export) {
            expectOutcomeOfReading(run, m_calls[number]);
        } else {
            expectOutcome(run, number);
        }
        expectWorkingCopy(run, m_calls[number]);
        EXPECT_EQ(m_store.whatLoads(), expectedCopy(run, number));
        const auto next = m_store.runNext(Operation::Save);
        expectAnswer(next, ProtoStatus::OK, "");
        EXPECT_FALSE(fs::exists(m_store.scratch()));
        ASSERT_FALSE(HasFailure()) << run.errors;
    }
    EXPECT_GT(tried, 1U);
}

INSTANTIATE_TEST_SUITE_P(All, FailingCall,
                         ::testing::Combine(::testing::Values(Operation::Save, Operation::Import,
                                                              Operation::ImportOfAnotherMachine,
                                                              Operation::Clear, Operation::Discard,
                                                              Operation::Export),
                                            ::testing::Values(ENOSPC, EIO, EACCES)),
                         [](const auto& param) {
                             const int error = std::get<1>(param.param);
                             return std::string(nameOf(std::get<0>(param.param))) +
                                    (error == ENOSPC ? "FullDisk"
                                     : error == EIO  ? "BrokenDisk"
                                                     : "NoAccess");
                         });

/// Nobody looks whether a value was written: its key is kept, and all others.
TEST(FailingWrite, OfAValueGoesUnnoticed) {
    StoreUnderFault store(keys);
    const auto calls = store.run(Operation::Save, FileCalls::Changing).calls;
    const std::string all = store.whatLoads();
    std::size_t tried = 0;
    for (std::size_t number = 0; number < calls.size(); ++number) {
        if (calls[number].name.find("write") == std::string::npos) {
            continue;
        }
        ++tried;
        SCOPED_TRACE(describe(Operation::Save, number, calls[number]));
        const auto run = store.run(Operation::Save, FileCalls::Changing, Fault{number, ENOSPC});
        ASSERT_TRUE(run.answer) << run.errors;
        EXPECT_EQ(answerOf(run).code, ProtoStatus::OK);
        const std::string loaded = store.whatLoads();
        EXPECT_NE(loaded, all);
        for (std::size_t key = all.find("key: "); key != std::string::npos;
             key = all.find("key: ", key + 1)) {
            EXPECT_THAT(loaded, HasSubstr(all.substr(key, all.find(" value:", key) - key)));
        }
    }
    EXPECT_EQ(tried, keys + 1U);
}

}  // namespace
}  // namespace Hox::Capability::Configuration
