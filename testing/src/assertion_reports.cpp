#include "hox/testing/assertion_reports.h"

#include "hox/cpputil/assertion/assertion.h"
#include "hox/cpputil/string/string_utils.h"

namespace Hox::Testing {

AssertionReports::AssertionReports() {
    auto& assertion = CppUtil::getAssertion();
    assertion.setAbortOnFailure(false);
    assertion.setOutputHandler([this](const std::string& report) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_reports.push_back(report);
    });
}

AssertionReports::~AssertionReports() {
    auto& assertion = CppUtil::getAssertion();
    assertion.setAbortOnFailure(true);
    assertion.setOutputHandler(nullptr);
}

std::vector<std::string> AssertionReports::all() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_reports;
}

std::vector<std::string> AssertionReports::conditions() const {
    const std::string start = "Assertion failed: [";
    std::vector<std::string> conditions;
    for (const auto& report : all()) {
        if (CppUtil::str_starts_with(start, report)) {
            conditions.push_back(
                report.substr(start.size(), report.find("] \nat:") - start.size()));
        }
    }
    return conditions;
}

}  // namespace Hox::Testing
