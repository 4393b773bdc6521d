#pragma once

#include <vector>

#include "session.h"
#include "state_client.h"

namespace Hox::Ctl {

/// Prints reports, one per row, with their age.
void printReports(const Session& session, const std::vector<StateClient::Stored>& reports);

/// The time of the report; the epoch if it has none or an impossible one.
std::chrono::system_clock::time_point timeOf(const StateClient::Report& report);

/// The same of a time stamp.
std::chrono::system_clock::time_point timeOf(const google::protobuf::Timestamp& stamp);

/// The time as the report of a service has it.
google::protobuf::Timestamp timeStamp(std::chrono::system_clock::time_point time);

}  // namespace Hox::Ctl
