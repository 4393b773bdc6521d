#pragma once

namespace Hox::ObserverTree::Test {

/// The number of the system call that a thread of this process is executing; -1 if none.
long systemCallOf(int thread);

/// Whether the call waits for the connections of the process.
bool isReadOfTheNetwork(long systemCall);

}  // namespace Hox::ObserverTree::Test
