#pragma once

#include <string>
#include <vector>

#include "painter.h"
#include "state_monitoring.pb.h"

namespace Hox::Ctl {

using Severity = Hox::Capability::StateMonitoring::Api::StateSeverity;

/// The names of the severities as the user writes them, the least severe first: ok, warn, booting,
/// error.
const std::vector<std::string>& severityNames();

/// The severity of a name, in small or capital letters. Throws CtlError for another text.
Severity parseSeverity(const std::string& name);

/// The name in capital letters; of a severity that is not known its number.
std::string severityText(Severity severity);

/// The position in the order of severities.
int severityRank(Severity severity);

/// The colour of the severity.
Painter::Color severityColor(Severity severity);

}  // namespace Hox::Ctl
