#include "report_list_command.h"

#include <algorithm>
#include <cstddef>

#include "duration.h"
#include "output.pb.h"
#include "report_table.h"
#include "severity.h"

namespace Hox::Ctl {

StateClient::Query ReportListCommand::queryAt(std::chrono::system_clock::time_point now) const {
    StateClient::Query query;
    query.set_typeregex(m_options.type);
    if (!m_options.since.empty()) {
        *query.mutable_timestamp() = timeStamp(now - parseDuration(m_options.since));
    } else if (m_options.last > 0 && m_options.severity.empty() && m_options.service.empty()) {
        query.set_index(-m_options.last);
    }
    return query;
}

void ReportListCommand::restrict(std::vector<StateClient::Stored>& reports) const {
    const int rank =
        m_options.severity.empty() ? 0 : severityRank(parseSeverity(m_options.severity));
    reports.erase(std::remove_if(reports.begin(), reports.end(),
                                 [this, rank](const auto& stored) {
                                     const auto& report = stored.statenotification();
                                     return severityRank(report.severity()) < rank ||
                                            (!m_options.service.empty() &&
                                             report.service_id() != m_options.service);
                                 }),
                  reports.end());
    const auto last = static_cast<std::ptrdiff_t>(m_options.last);
    if (last > 0 && std::distance(reports.begin(), reports.end()) > last) {
        reports.erase(reports.begin(), reports.end() - last);
    }
}

ExitCode ReportListCommand::run(Session& session) const {
    const auto connection = session.connect();
    auto reports = StateClient(*connection).archived(queryAt(session.now()));
    restrict(reports);
    if (session.options().format == GlobalOptions::Format::Table) {
        printReports(session, reports);
    } else if (session.options().format == GlobalOptions::Format::JsonLines) {
        for (const auto& stored : reports) {
            session.print(stored);
        }
    } else {
        ReportList list;
        *list.mutable_reports() = {reports.begin(), reports.end()};
        session.print(list);
    }
    return ExitCode::Done;
}

}  // namespace Hox::Ctl
