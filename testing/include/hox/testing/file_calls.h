#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace Hox::Testing {

/// A system call of a child that concerns files, at its entry.
struct FileCall {
    /// The name in the manual, such as "renameat2".
    std::string name;
    /// The path argument, the first of two, as given by the child; made absolute if it is relative
    /// to an open folder. For calls on an open file, the path of that file.
    std::string path;
    /// Whether it may change anything; false for an open for reading.
    bool changes = true;
};

/// A fault at a call; the call is not made.
struct Fault {
    /// The number of the faulty call, from 0.
    std::size_t call = 0;
    /// The errno that it fails with; 0: the child is killed at the entry of the call.
    int error = 0;
    /// Whether each later call of that name fails as well.
    bool lasting = false;
    /// Whether the call, a write, is made with the first half of its bytes only.
    bool halved = false;

    /// A short write.
    static Fault half(std::size_t call) { return {call, 0, false, true}; }
};

/// The calls that are listed, and counted for faults.
enum class FileCalls {
    None,                ///< none
    Changing,            ///< each that changes a file or a directory, including writes to files
    ChangingAndOpening,  ///< these and each open for reading
    All                  ///< each that concerns a file
};

/// How a child has ended.
struct WatchedRun {
    std::vector<FileCall> calls;
    /// The signal that ended it, or 0.
    int signal = 0;
    /// The result of the action, if it returned.
    std::optional<std::string> answer;
    /// Its output on standard error.
    std::string errors;
};

/// Called at the entry of a call, with the call's number from 0, on the thread of runWatched().
using AtCall = std::function<void(std::size_t number, const FileCall& call)>;

/// Forks, runs the action in the child and lists its calls to the kernel, with a fault at one of
/// them if given. sync and syncfs are listed as changing calls, but never made: they would wait for
/// whole disks.
///
/// atCall gets the number and the call before the call is made; the content of the disk at that
/// moment is what a kill at this entry leaves.
///
/// Call it in a process whose other threads, if any, rest: it waits until they do. A child that
/// takes longer than 20 seconds is killed. Throws std::system_error if the kernel refuses, and
/// std::runtime_error after 20 seconds.
WatchedRun runWatched(const std::function<std::string()>& action, FileCalls listed,
                      const std::optional<Fault>& fault = std::nullopt, const AtCall& atCall = {});

}  // namespace Hox::Testing
