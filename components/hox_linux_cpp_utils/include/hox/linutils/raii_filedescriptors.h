#pragma once

#include <functional>
#include <memory>
#include <string>

namespace Hox::LinuxCppUtil {

/// An open file descriptor with its owner: its deleter closes the descriptor. Null means that there
/// is none. One holder at a time; the descriptor is closed on the thread that drops the last one.
using OwnedFileDescriptor = std::unique_ptr<int, std::function<void(int*)>>;

/// Opens the file with the flags of open(2), which must not ask for the creation of a file.
///
/// Throws CppUtil::FileSystemError if the file cannot be opened. The descriptor 0 counts as a
/// failure as well and stays open: the standard input of a service is never its own file.
OwnedFileDescriptor openFileDescriptor(const std::string& path, int flags);

/// Takes over a descriptor that the system has opened; null for a negative number, as calls return
/// for a failure.
OwnedFileDescriptor ownFileDescriptor(int number);

/// The descriptor's number, valid as long as its owner. Throws FileDescriptorError if there is
/// none.
int fileDescriptorNumber(const OwnedFileDescriptor& fileDescriptor);

}  // namespace Hox::LinuxCppUtil
