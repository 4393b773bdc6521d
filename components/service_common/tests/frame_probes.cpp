#include "frame_probes.h"

#include <filesystem>
#include <fstream>
#include <future>
#include <stdexcept>
#include <string>

namespace Hox::Service::Fixture {

bool isFree(std::mutex& mutex) {
    // Another thread tries the mutex, because the calling thread may hold it.
    return std::async(std::launch::async,
                      [&mutex] { return std::unique_lock(mutex, std::try_to_lock).owns_lock(); })
        .get();
}

std::set<int> openEventDescriptors() {
    std::set<int> descriptors;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code vanished;
        const auto target = std::filesystem::read_symlink(entry.path(), vanished);
        if (!vanished && target == "anon_inode:[eventfd]") {
            descriptors.insert(std::stoi(entry.path().filename()));
        }
    }
    return descriptors;
}

std::uint64_t eventCount(int descriptor) {
    std::ifstream info("/proc/self/fdinfo/" + std::to_string(descriptor));
    std::string word;
    while (info >> word) {
        if (word == "eventfd-count:") {
            std::uint64_t count = 0;
            info >> std::hex >> count;
            return count;
        }
    }
    throw std::runtime_error("not an event descriptor");
}

}  // namespace Hox::Service::Fixture
