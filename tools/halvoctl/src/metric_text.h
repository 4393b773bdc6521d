#pragma once

#include <string>

#include "doctor.pb.h"

namespace Hox::Ctl {

/// The samples in the text format of Prometheus. Those of one metric must be neighbours.
std::string metricText(const MetricList& list);

}  // namespace Hox::Ctl
