#pragma once

#include <string>
#include <vector>

#include "hox/linutils/raii_filedescriptors.h"

namespace Hox::Service {

/// Sockets that listen at each address of the host name, none of them shared with another program;
/// "::" means all addresses of the machine.
///
/// Throws InitializationError, which names host and port, if one of the addresses is taken, and if
/// none is available.
std::vector<LinuxCppUtil::OwnedFileDescriptor> listenAt(const std::string& host,
                                                        const std::string& port);

}  // namespace Hox::Service
