#pragma once

namespace Hox::Capability::StateMonitoring {

/// Initialises the SNMP library of the process and makes the MIB files known that are installed
/// with this program: "../share/snmp/mibs" beside its folder. Its messages go to the log, at debug
/// level. A second call has no effect. On one thread at a time.
void initSnmpLibrary();

}  // namespace Hox::Capability::StateMonitoring
