#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace Hox::Testing {

/// Keeps the reports of failed assertions. During its lifetime they do not end the process;
/// afterwards they do, and report to standard error.
///
/// Create and destroy it while no other thread asserts; at most one exists at a time.
class AssertionReports {
public:
    /// Receives the reports from here on.
    AssertionReports();
    ~AssertionReports();
    AssertionReports(const AssertionReports&) = delete;
    AssertionReports& operator=(const AssertionReports&) = delete;
    AssertionReports(AssertionReports&&) = delete;
    AssertionReports& operator=(AssertionReports&&) = delete;

    /// All reports so far, in order: two for each assertion. Callable from any thread.
    std::vector<std::string> all() const;

    /// The source text of each condition that has failed, in order. Callable from any thread.
    std::vector<std::string> conditions() const;

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_reports;  // GUARDED_BY(m_mutex)
};

}  // namespace Hox::Testing
