#include "time_stamp.h"

#include <google/protobuf/util/time_util.h>

#include <chrono>

namespace Hox::Capability::StateMonitoring {

google::protobuf::Timestamp currentTimeStamp() {
    // The library's own function returns whole seconds.
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return google::protobuf::util::TimeUtil::NanosecondsToTimestamp(
        std::chrono::duration_cast<std::chrono::nanoseconds>(now).count());
}

}  // namespace Hox::Capability::StateMonitoring
