#include "saving_status.h"

#include <algorithm>

#include "severity.h"
#include "state_client.h"

namespace Hox::Ctl {

SavingStatusList savingStatus(const Connection& connection) {
    const StateClient client(connection);
    SavingStatusList list;
    const auto latest = savingReports(client.latest());
    if (latest.empty()) {
        return list;
    }
    StateClient::Query query;
    query.set_typeregex("^" + latest.front().statenotification().type() + "$");
    const auto archived = savingReports(client.archived(query));
    for (const auto& stored : latest) {
        const auto& report = stored.statenotification();
        auto& status = *list.add_services();
        status.set_service_id(report.service_id());
        status.set_is_saved(severityRank(report.severity()) == 0);
        *status.mutable_since() = report.timestamp();
        // Every change is reported: the first report of the last run of equal ones tells since
        // when.
        bool isInRun = false;
        for (const auto& earlier : archived) {
            const auto& former = earlier.statenotification();
            if (former.service_id() != report.service_id()) {
                continue;
            }
            const bool isEqual = former.severity() == report.severity();
            if (isEqual && !isInRun) {
                *status.mutable_since() = former.timestamp();
            }
            isInRun = isEqual;
        }
    }
    return list;
}

bool isAllSaved(const SavingStatusList& list) {
    return std::all_of(list.services().begin(), list.services().end(),
                       [](const auto& status) { return status.is_saved(); });
}

}  // namespace Hox::Ctl
