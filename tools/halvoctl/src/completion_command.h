#pragma once

#include <string>

#include "completion.h"
#include "session.h"

namespace Hox::Ctl {

/// The hidden command that completes a line, which is its only argument.
inline const std::string completionWord = "__complete";

/// Prints the words that may be meant, one per line. What only the service knows is left out if it
/// does not answer within 300 ms. Throws nothing that needs to be shown.
void printCompletion(const Session& session, const Completion& completion);

}  // namespace Hox::Ctl
