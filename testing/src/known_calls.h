#pragma once

#include <linux/filter.h>

#include <cstdint>
#include <vector>

#include "hox/testing/file_calls.h"

namespace Hox::Testing {

/// Decides whether a call counts, and where its path is.
enum class CallKind {
    Path,       ///< a path argument; counts always
    PathAt,     ///< the same after the descriptor of the folder that the path is relative to
    Open,       ///< a path and flags; counts by the flags
    OpenAt,     ///< the same after the descriptor of a folder
    Changing,   ///< a descriptor as the first argument; counts unless it is a standard one
    Reading,    ///< the same, and it changes nothing
    Looking,    ///< a path argument, and it changes nothing
    LookingAt,  ///< the same after the descriptor of a folder
    Whole       ///< no argument; counts always
};

/// A system call that concerns files.
struct KnownCall {
    const char* name = nullptr;
    long number = 0;
    CallKind kind = CallKind::Whole;
    unsigned path = 0;   ///< index of the path argument
    bool isMade = true;  ///< if false, the call succeeds without being made

    /// Whether its first argument is the descriptor that it works on.
    bool isOnDescriptor() const { return kind == CallKind::Changing || kind == CallKind::Reading; }
    /// Whether the argument before the path is the folder that the path is relative to.
    bool isAt() const {
        return kind == CallKind::PathAt || kind == CallKind::OpenAt || kind == CallKind::LookingAt;
    }
    /// Whether the argument after the path holds the flags of an open.
    bool isOpen() const { return kind == CallKind::Open || kind == CallKind::OpenAt; }
    /// Whether it never changes anything, whatever its arguments are.
    bool onlyLooks() const {
        return kind == CallKind::Reading || kind == CallKind::Looking ||
               kind == CallKind::LookingAt;
    }
};

/// The flags of an open that may change something.
extern const std::uint32_t writeFlags;

/// All calls that can be listed.
const std::vector<KnownCall>& knownCalls();

/// The filter program for the kernel that selects the calls to be listed and those that are not
/// made.
std::vector<sock_filter> filterFor(FileCalls listed);

}  // namespace Hox::Testing
