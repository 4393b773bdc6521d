#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace Hox::Testing {

/// Keeps what failed assertions report. While it lives they do not end the process; afterwards they
/// do, and report to standard error.
///
/// Begin and end it while no other thread asserts; at most one lives at a time.
class AssertionReports {
public:
    /// Takes the reports from here on.
    AssertionReports();
    ~AssertionReports();
    AssertionReports(const AssertionReports&) = delete;
    AssertionReports& operator=(const AssertionReports&) = delete;
    AssertionReports(AssertionReports&&) = delete;
    AssertionReports& operator=(AssertionReports&&) = delete;

    /// All reports so far, in order: two for each assertion. Any thread.
    std::vector<std::string> all() const;

    /// The source text of each condition that has failed, in order. Any thread.
    std::vector<std::string> conditions() const;

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_reports;  // GUARDED_BY(m_mutex)
};

}  // namespace Hox::Testing
