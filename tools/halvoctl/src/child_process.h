#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace Hox::Ctl {

/// Runs a program, found on the path unless its name has a slash, without input and output, to its
/// end. Returns its exit status, or 127 if it cannot be run and 128 and its signal if that ended
/// it.
int runQuietly(const std::vector<std::string>& words);

/// The same, but returns its output. Throws CtlError if it cannot be run or fails; one that takes
/// longer than the limit is killed and has failed.
std::string outputOf(const std::vector<std::string>& words, std::chrono::milliseconds limit);

/// Starts a program that outlives this process and its terminal: in a session of its own, in the
/// root folder, without input, output and files, except that it inherits `keptFile` and so the lock
/// on it. It ignores SIGHUP if this process does. Throws CtlError if it cannot be started.
void startDetached(const std::vector<std::string>& words, int keptFile);

}  // namespace Hox::Ctl
