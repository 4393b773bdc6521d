#pragma once

#include <google/protobuf/timestamp.pb.h>

namespace Hox::Capability::StateMonitoring {

/// The current time, with the resolution of the system clock. Any thread.
google::protobuf::Timestamp currentTimeStamp();

}  // namespace Hox::Capability::StateMonitoring
