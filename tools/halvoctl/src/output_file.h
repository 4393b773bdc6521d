#pragma once

#include <string>

namespace Hox::Ctl {

/// Writes a whole file: first FILE.part, which is flushed to the disk and then renamed, so that
/// FILE is always a complete one. A device or a pipe is written itself. Throws CtlError if that
/// fails, and for a link to a file; then FILE is as before, and FILE.part is removed.
void writeWholeFile(const std::string& path, const std::string& content);

/// Flushes to the disk which entries the folder has. Throws CtlError if that fails.
void flushFolder(const std::string& path);

}  // namespace Hox::Ctl
