#pragma once

#include <google/protobuf/timestamp.pb.h>

namespace Hox::Capability::StateMonitoring {

/// The time of day, to the nanosecond as far as the system's clock tells. Any thread.
google::protobuf::Timestamp currentTimeStamp();

}  // namespace Hox::Capability::StateMonitoring
