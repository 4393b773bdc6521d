#include "grpc/system_calls.h"

#include <sys/syscall.h>

#include <fstream>
#include <string>

namespace Hox::ObserverTree::Test {

long systemCallOf(int thread) {
    long number = -1;
    std::ifstream("/proc/self/task/" + std::to_string(thread) + "/syscall") >> number;
    return number;
}

bool isReadOfTheNetwork(long systemCall) {
    return systemCall == SYS_epoll_wait || systemCall == SYS_epoll_pwait;
}

}  // namespace Hox::ObserverTree::Test
