#include "confirm_report.h"

#include <algorithm>

#include "confirm_records.h"
#include "ctl_error.h"
#include "report_table.h"
#include "state_client.h"

namespace Hox::Ctl {

namespace {

StateClient::Report reportNow(const Session& session, Severity severity, const std::string& text) {
    StateClient::Report report;
    report.set_service_id("halvoctl");
    report.set_type("Confirmation");
    report.set_source("conf/confirm");
    report.set_severity(severity);
    report.set_msg(text);
    *report.mutable_timestamp() = timeStamp(session.now());
    return report;
}

}  // namespace

void ConfirmReport::complain(const std::string& text, const std::string& info) const {
    auto report = reportNow(m_session, parseSeverity("error"), text);
    report.set_extendedinfo(info);
    StateClient(m_connection).report(report);
}

void ConfirmReport::settle(const std::string& text) const {
    try {
        if (isComplaint() && !hasExpiredChange()) {
            StateClient(m_connection).report(reportNow(m_session, parseSeverity("ok"), text));
        }
    } catch (const CtlError& error) {
        if (error.code() == ExitCode::Interrupted) {
            throw;
        }
        m_session.note(error.what());
    }
}

bool ConfirmReport::isComplaint() const {
    const auto own = reportNow(m_session, {}, "");
    const auto latest = StateClient(m_connection).latest();
    return std::any_of(latest.begin(), latest.end(), [&own](const auto& stored) {
        const auto& report = stored.statenotification();
        return report.service_id() == own.service_id() && report.type() == own.type() &&
               report.source() == own.source() && severityRank(report.severity()) > 0;
    });
}

bool ConfirmReport::hasExpiredChange() const {
    const auto all = pendingConfirmations(m_session.surroundings());
    return std::any_of(all.begin(), all.end(), [this](const auto& pending) {
        return pending.content.endpoint() == m_connection.endpoint() &&
               timeOf(pending.content.reverts_at()) <= m_session.now();
    });
}

}  // namespace Hox::Ctl
