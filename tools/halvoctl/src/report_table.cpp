#include "report_table.h"

#include <google/protobuf/util/time_util.h>

#include "duration.h"
#include "table.h"

namespace Hox::Ctl {

using google::protobuf::util::TimeUtil;
using std::chrono::system_clock;

void printReports(const Session& session, const std::vector<StateClient::Stored>& reports) {
    Table table({"SEVERITY", "AGE", "SERVICE", "TYPE", "SOURCE", "TEXT"});
    for (const auto& stored : reports) {
        const auto& report = stored.statenotification();
        const auto time = timeOf(report);
        const auto age = time == system_clock::time_point()
                             ? "-"
                             : ageText(std::chrono::duration_cast<std::chrono::milliseconds>(
                                   session.now() - time));
        table.add({severityText(report.severity()), age, report.service_id(), report.type(),
                   report.source(), report.msg()},
                  severityColor(report.severity()));
    }
    table.print(session.out(), session.painter());
}

system_clock::time_point timeOf(const StateClient::Report& report) {
    return timeOf(report.timestamp());
}

system_clock::time_point timeOf(const google::protobuf::Timestamp& stamp) {
    constexpr std::int64_t year2262 = 9214646400;  // where nanoseconds in 64 bits end
    if (stamp.seconds() < 0 || stamp.seconds() > year2262) {
        return {};
    }
    return system_clock::time_point(
        std::chrono::duration_cast<system_clock::duration>(std::chrono::seconds(stamp.seconds())) +
        std::chrono::nanoseconds(stamp.nanos()));
}

google::protobuf::Timestamp timeStamp(system_clock::time_point time) {
    return TimeUtil::NanosecondsToTimestamp(
        std::chrono::duration_cast<std::chrono::nanoseconds>(time.time_since_epoch()).count());
}

}  // namespace Hox::Ctl
