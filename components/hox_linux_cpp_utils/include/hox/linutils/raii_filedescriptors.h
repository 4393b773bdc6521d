#pragma once

#include <functional>
#include <memory>
#include <string>

namespace Hox::LinuxCppUtil {

/// The owner of an open file descriptor: its deleter closes the descriptor. Null means no
/// descriptor. One holder at a time; the descriptor is closed on the thread that destroys the
/// owner.
using OwnedFileDescriptor = std::unique_ptr<int, std::function<void(int*)>>;

/// Opens the file with the flags of open(2), which must not ask to create a file.
///
/// Throws CppUtil::FileSystemError if the file cannot be opened. Descriptor 0 also counts as a
/// failure and stays open: the standard input of a service is never one of its files.
OwnedFileDescriptor openFileDescriptor(const std::string& path, int flags);

/// Takes over a descriptor that the system has opened; null for a negative number, which system
/// calls return on failure.
OwnedFileDescriptor ownFileDescriptor(int number);

/// The descriptor's number, valid as long as its owner. Throws FileDescriptorError if there is
/// none.
int fileDescriptorNumber(const OwnedFileDescriptor& fileDescriptor);

}  // namespace Hox::LinuxCppUtil
