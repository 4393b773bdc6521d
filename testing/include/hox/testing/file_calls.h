#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace Hox::Testing {

/// A system call of a child that has to do with files, at its entry.
struct FileCall {
    /// As the manual calls it, "renameat2".
    std::string name;
    /// The path that it is given, the first of two, as it stands in the child; absolute where it is
    /// relative to an open folder. For calls on a file that is open, the path of that file.
    std::string path;
    /// Whether it may change anything: an open for reading may not.
    bool changes = true;
};

/// What happens to a call, which is not made then.
struct Fault {
    /// The number of the call, from 0.
    std::size_t call = 0;
    /// The errno that it fails with; 0: the child is killed at the entry of the call.
    int error = 0;
    /// Whether each later call of that name fails as well.
    bool lasting = false;
    /// Whether the call, a write, is made with the first half of its bytes instead.
    bool halved = false;

    /// The short write.
    static Fault half(std::size_t call) { return {call, 0, false, true}; }
};

/// Which calls are listed, and counted for faults.
enum class FileCalls {
    None,                ///< none
    Changing,            ///< each that changes a file or a directory, writes to files included
    ChangingAndOpening,  ///< these and each open for reading
    All                  ///< each that has to do with a file
};

/// How a child has ended.
struct WatchedRun {
    std::vector<FileCall> calls;
    /// The signal that ended it, or 0.
    int signal = 0;
    /// What the action returned, if it did.
    std::optional<std::string> answer;
    /// What it wrote to standard error.
    std::string errors;
};

/// Is told a call at its entry, with the call's number from 0, on the thread of runWatched().
using AtCall = std::function<void(std::size_t number, const FileCall& call)>;

/// Forks, runs the action in the child and lists its calls to the kernel, with a fault at one of
/// them if given. sync and syncfs are listed among the changing calls, but never made: they would
/// wait for whole disks.
///
/// While a call waits to be made, atCall is told its number and the call; what lies on the disk
/// then is what a kill at this entry leaves.
///
/// Call it in a process without other threads. A child that takes longer than 20 seconds is killed.
/// Throws std::system_error where the kernel refuses, and std::runtime_error after 20 seconds.
WatchedRun runWatched(const std::function<std::string()>& action, FileCalls listed,
                      const std::optional<Fault>& fault = std::nullopt, const AtCall& atCall = {});

}  // namespace Hox::Testing
