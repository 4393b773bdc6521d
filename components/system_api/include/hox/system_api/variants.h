#pragma once

#include <filesystem>
#include <istream>

namespace Hox::SystemAPI {

/// The software variant that a head-end runs.
enum class HeadendSWVariant {
    QAM = 0,  ///< also the default
    COFDM = 1,
    UNKNOWN = 2,
};

/// The name of the variant, as in "QAM".
const char* nameOf(HeadendSWVariant variant);

/// Reads a variant file: the value of its last "output:" line. A key counts only at the start of
/// the file or directly after another "output:" line.
///
/// QAM if the file does not exist or has no such line, UNKNOWN for any other value and for a file
/// that cannot be read, which is logged. Callable from any thread.
HeadendSWVariant deSerialize(const std::filesystem::path& path);

/// The same from an open stream, which is read to its end.
HeadendSWVariant deSerialize(std::istream& stream);

/// Writes a variant file, which replaces an existing one atomically. The file is empty for a
/// variant without a name (UNKNOWN).
///
/// Throws CppUtil::FileSystemError if that fails; the old file is unchanged then. Two threads must
/// not call it at the same time with the same path.
void serialize(HeadendSWVariant variant, const std::filesystem::path& path);

}  // namespace Hox::SystemAPI
