#include "metrics_command.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "conf_client.h"
#include "ctl_error.h"
#include "doctor.pb.h"
#include "finding_list.h"
#include "metric_text.h"
#include "report_table.h"
#include "saving_status.h"
#include "severity.h"
#include "state_client.h"

namespace Hox::Ctl {

namespace {

using Labels = std::vector<std::pair<std::string, std::string>>;

double seconds(std::chrono::system_clock::duration time) {
    return std::chrono::duration<double>(time).count();
}

/// Measures one endpoint.
class Measurement {
public:
    Measurement(const Session& session, std::string endpoint, MetricList& list)
        : m_session(session), m_endpoint(std::move(endpoint)), m_list(list) {}

    /// Returns how it has ended; what was measured before is in the list.
    ExitCode run() {
        auto code = ExitCode::Done;
        bool isUp = false;
        try {
            const auto connection = m_session.connect(m_endpoint);
            isUp = true;
            measure(*connection);
        } catch (const CtlError& error) {
            if (error.code() == ExitCode::Interrupted) {
                throw;
            }
            m_session.note(m_endpoint + ": " + error.what());
            code = error.code();
            isUp = isUp && code != ExitCode::Unreachable;
        }
        add("halvo_up", "Whether the service answers.", {}, isUp ? 1 : 0);
        return code;
    }

private:
    void measure(const Connection& connection) {
        const auto start = std::chrono::steady_clock::now();
        const StateClient client(connection);
        const auto severity = client.current();
        const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
        add("halvo_round_trip_seconds", "Time from a request to its answer.", {}, time.count());
        add("halvo_current_severity", "Severity of the whole: 0 ok, 1 warn, 2 booting, 3 error.",
            {}, severityRank(severity));
        addReports(client.latest());
        addSaving(connection);
        addPackage(connection);
    }

    void add(const char* name, const char* help, const Labels& labels, double value) {
        auto& metric = *m_list.add_metrics();
        metric.set_name(name);
        metric.set_help(help);
        metric.set_value(value);
        addLabel(metric, "endpoint", m_endpoint);
        for (const auto& [label, text] : labels) {
            addLabel(metric, label, text);
        }
    }

    static void addLabel(Metric& metric, const std::string& name, const std::string& value) {
        auto& label = *metric.add_labels();
        label.set_name(name);
        label.set_value(value);
    }

    void addReports(const std::vector<StateClient::Stored>& latest) {
        std::map<std::string, int> services;
        std::vector<int> origins(severityNames().size());
        auto oldest = m_session.now();
        for (const auto& stored : latest) {
            const auto& report = stored.statenotification();
            const int rank = severityRank(report.severity());
            auto& worst = services[report.service_id()];
            worst = std::max(worst, rank);
            ++origins.at(static_cast<std::size_t>(rank));
            const auto time = timeOf(report);
            if (rank > 0 && time != std::chrono::system_clock::time_point()) {
                oldest = std::min(oldest, time);
            }
        }
        for (const auto& [service, worst] : services) {
            add("halvo_severity", "Worst latest report: 0 ok, 1 warn, 2 booting, 3 error.",
                {{"service", service}}, worst);
        }
        for (std::size_t rank = 0; rank < origins.size(); ++rank) {
            add("halvo_origins", "Origins by the severity of their latest report.",
                {{"severity", severityNames()[rank]}}, origins[rank]);
        }
        add("halvo_oldest_not_ok_seconds", "Age of the oldest latest report that is not ok.", {},
            seconds(m_session.now() - oldest));
    }

    void addSaving(const Connection& connection) {
        const auto list = savingStatus(connection);
        for (const auto& status : list.services()) {
            add("halvo_configuration_unsaved", "Whether changes are not saved.",
                {{"service", status.service_id()}}, status.is_saved() ? 0 : 1);
            add("halvo_configuration_since_timestamp_seconds",
                "Since when the configuration is saved or not.", {{"service", status.service_id()}},
                static_cast<double>(status.since().seconds()));
        }
    }

    /// A configuration that is too large to be exported, or whose package cannot be read, has no
    /// size that is known here.
    void addPackage(const Connection& connection) {
        add("halvo_package_limit_bytes", "Largest estimate that can be exported.", {}, exportLimit);
        bool isExported = false;
        try {
            const Package package(ConfClient(connection).exportPackage());
            isExported = true;
            add("halvo_package_bytes", "Estimated size of the saved configuration.", {},
                static_cast<double>(exportEstimate(package)));
        } catch (const CtlError& error) {
            if (error.code() == ExitCode::Unreachable || error.code() == ExitCode::Interrupted) {
                throw;
            }
        }
        add("halvo_package_exported", "Whether the saved configuration can be exported.", {},
            isExported ? 1 : 0);
    }

    const Session& m_session;
    std::string m_endpoint;  // as the user names it: a label may not depend on the outcome
    MetricList& m_list;
};

}  // namespace

ExitCode printMetrics(Session& session) {
    auto code = ExitCode::Done;
    MetricList list;
    for (const auto& endpoint : session.options().endpoints) {
        code = worseOf(code, Measurement(session, endpoint, list).run());
    }
    std::stable_sort(
        list.mutable_metrics()->begin(), list.mutable_metrics()->end(),
        [](const Metric& one, const Metric& other) { return one.name() < other.name(); });
    if (session.isJson()) {
        session.print(list);
    } else {
        session.out() << metricText(list);
    }
    return code;
}

}  // namespace Hox::Ctl
