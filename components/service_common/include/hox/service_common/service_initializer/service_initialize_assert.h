#pragma once

namespace Hox::Service {

/// Sends the reports of failed assertions to the logger "assertion_handler" at level error, and
/// sets whether a failed assertion ends the process. For start-up, before other threads run.
void initAssertion(bool abortOnFailure);

}  // namespace Hox::Service
