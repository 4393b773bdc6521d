#include "state_commands.h"

#include <algorithm>

#include "ctl_error.h"
#include "output.pb.h"
#include "printable.h"
#include "report_table.h"
#include "severity.h"
#include "state_client.h"

namespace Hox::Ctl {

namespace {

State stateAt(const Connection& connection) {
    const StateClient client(connection);
    State state;
    state.set_endpoint(connection.endpoint());
    state.set_current_state(client.current());
    auto latest = client.latest();
    const auto own = savingReports(latest);
    if (own.size() == 1) {
        state.set_service_id(own.front().statenotification().service_id());
    }
    if (severityRank(state.current_state()) == 0) {
        return state;
    }
    std::sort(latest.begin(), latest.end(),
              [](const auto& one, const auto& other) { return one.index() < other.index(); });
    for (const auto& stored : latest) {
        if (stored.statenotification().severity() == state.current_state()) {
            *state.add_deciding() = stored;
        }
    }
    return state;
}

void printState(const Session& session, const State& state) {
    constexpr std::size_t width = 7;
    auto severity = severityText(state.current_state());
    const auto padding = std::string(width - std::min(width - 1, severity.size()), ' ');
    session.out() << session.painter().paint(severityColor(state.current_state()), severity)
                  << padding;
    if (!state.service_id().empty()) {
        session.out() << printable(state.service_id()) << " at ";
    }
    session.out() << state.endpoint() << '\n';
    printReports(session, {state.deciding().begin(), state.deciding().end()});
}

StateClient::Report reportOf(const Session& session, const ReportWords& words) {
    StateClient::Report report;
    const auto& origin = words.origin;
    const auto first = std::min(origin.find('/'), origin.size());
    const auto second = std::min(origin.find('/', first + 1), origin.size());
    report.set_service_id(origin.substr(0, first));
    if (first < origin.size()) {
        report.set_type(origin.substr(first + 1, second - first - 1));
    }
    if (second < origin.size()) {
        report.set_source(origin.substr(second + 1));
    }
    report.set_severity(parseSeverity(words.severity));
    report.set_msg(words.text);
    report.set_extendedinfo(words.info);
    *report.mutable_timestamp() = timeStamp(session.now());
    return report;
}

}  // namespace

ExitCode showState(Session& session, const std::string& failOn) {
    const auto limit = failOn.empty() ? Severity() : parseSeverity(failOn);
    auto code = ExitCode::Done;
    for (const auto& endpoint : session.options().endpoints) {
        State state;
        try {
            state = stateAt(*session.connect(endpoint));
        } catch (const CtlError& error) {
            if (session.options().endpoints.size() == 1 || error.code() == ExitCode::Interrupted) {
                throw;
            }
            session.note(endpoint + ": " + error.what());
            code = worseOf(code, error.code());
            continue;
        }
        if (session.isJson()) {
            session.print(state);
        } else {
            printState(session, state);
        }
        const bool isReached =
            !failOn.empty() && severityRank(state.current_state()) >= severityRank(limit);
        if (isReached) {
            code = worseOf(code, ExitCode::No);
        }
    }
    return code;
}

ExitCode report(Session& session, const ReportWords& words) {
    const auto connection = session.connect();
    StateClient(*connection).report(reportOf(session, words));
    return ExitCode::Done;
}

ExitCode reportOk(Session& session, const ReportWords& words) {
    const auto connection = session.connect();
    const StateClient client(*connection);
    const auto wanted = reportOf(session, words);
    const auto latest = client.latest();
    const bool isKnown = std::any_of(latest.begin(), latest.end(), [&wanted](const auto& stored) {
        const auto& known = stored.statenotification();
        return known.service_id() == wanted.service_id() && known.type() == wanted.type() &&
               known.source() == wanted.source();
    });
    if (!isKnown) {
        throw CtlError(ExitCode::Usage, "\"" + words.origin + "\" has reported nothing",
                       "halvoctl state list shows the origins, as SERVICE/TYPE/SOURCE");
    }
    client.report(wanted);
    return ExitCode::Done;
}

}  // namespace Hox::Ctl
