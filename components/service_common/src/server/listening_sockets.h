#pragma once

#include <string>
#include <vector>

#include "hox/linutils/raii_filedescriptors.h"

namespace Hox::Service {

/// Sockets that listen at each address that the host's name stands for, none of them shared with
/// another program; "::" stands for all addresses of the machine.
///
/// Throws InitializationError that names host and port where one of them is taken, and where none
/// can be had.
std::vector<LinuxCppUtil::OwnedFileDescriptor> listenAt(const std::string& host,
                                                        const std::string& port);

}  // namespace Hox::Service
