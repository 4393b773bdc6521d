#include "service_process.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <system_error>

namespace fs = std::filesystem;

namespace Hox::Ctl {

namespace {

/// The target of a link; empty if it cannot be read.
std::string targetOf(const fs::path& link) {
    std::error_code error;
    return fs::read_symlink(link, error).string();
}

/// Whether clients on this machine reach a socket at this address, as the kernel writes it: the
/// loopback address or any address, of either family.
bool isReachedLocally(const std::string& address) {
    static const std::set<std::string> local{
        "0100007F", "00000000", "00000000000000000000000001000000",
        "00000000000000000000000000000000", "0000000000000000FFFF00000100007F"};
    return local.count(address) > 0;
}

/// The sockets, as inode numbers, that listen on the port in one table of the kernel.
void addSockets(const char* table, std::uint16_t port, std::set<std::string>& inodes) {
    constexpr int hexadecimal = 16;
    constexpr const char* listening = "0A";
    std::ifstream file(table);
    std::string line;
    std::getline(file, line);  // the heading
    while (std::getline(file, line)) {
        std::istringstream words(line);
        std::string slot;
        std::string address;
        std::string skipped;
        std::string state;
        std::string inode;
        words >> slot >> address >> skipped >> state;
        for (int column = 0; column < 6; ++column) {
            words >> inode;
        }
        const auto colon = address.rfind(':');
        if (state == listening && colon != std::string::npos &&
            isReachedLocally(address.substr(0, colon)) &&
            std::strtoul(address.c_str() + colon + 1, nullptr, hexadecimal) == port) {
            inodes.insert(inode);
        }
    }
}

/// The process with the lowest number that has each of these sockets open.
std::map<std::string, pid_t> ownersOf(const std::set<std::string>& inodes) {
    std::map<std::string, pid_t> owners;
    std::error_code error;
    for (const auto& process : fs::directory_iterator("/proc", error)) {
        const auto name = process.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos) {
            continue;
        }
        const auto pid = static_cast<pid_t>(std::strtol(name.c_str(), nullptr, 10));
        for (const auto& file : fs::directory_iterator(process.path() / "fd", error)) {
            auto target = targetOf(file.path());
            const std::string start = "socket:[";
            if (target.compare(0, start.size(), start) != 0) {
                continue;
            }
            target = target.substr(start.size(), target.size() - start.size() - 1);
            if (inodes.count(target) > 0) {
                const auto known = owners.emplace(target, pid).first;
                known->second = std::min(known->second, pid);
            }
        }
    }
    return owners;
}

std::vector<std::string> wordsOf(const std::string& folder) {
    std::ifstream file(folder + "/cmdline", std::ios::binary);
    std::vector<std::string> words;
    std::string word;
    while (std::getline(file, word, '\0')) {
        words.push_back(word);
    }
    return words;
}

}  // namespace

Listeners listenersOn(std::uint16_t port) {
    std::set<std::string> inodes;
    addSockets("/proc/net/tcp", port, inodes);
    addSockets("/proc/net/tcp6", port, inodes);
    const auto owners = ownersOf(inodes);
    Listeners listeners;
    listeners.isComplete = owners.size() == inodes.size();
    for (const auto& [inode, pid] : owners) {
        listeners.processes.insert(pid);
    }
    return listeners;
}

ServiceProcess::ServiceProcess(pid_t pid) : m_pid(pid) {
    const auto folder = "/proc/" + std::to_string(pid);
    struct stat status {};
    if (::stat(folder.c_str(), &status) == 0) {
        m_uid = status.st_uid;
    }
    const std::string deleted = " (deleted)";
    m_program = targetOf(folder + "/exe");
    const auto end = m_program.size() - std::min(m_program.size(), deleted.size());
    if (m_program.compare(end, std::string::npos, deleted) == 0 && !m_program.empty()) {
        m_isProgramDeleted = true;
        m_program.erase(end);
    }
    m_words = wordsOf(folder);
    m_folder = targetOf(folder + "/cwd");
    if (::access((folder + "/root/.").c_str(), X_OK) == 0) {
        m_root = folder + "/root";
    }
}

bool ServiceProcess::has(const std::string& option) const {
    return std::find(m_words.begin(), m_words.end(), option) != m_words.end();
}

std::optional<std::string> ServiceProcess::valueOf(const std::string& option) const {
    for (auto word = m_words.begin(); word != m_words.end(); ++word) {
        if (*word == option && word + 1 != m_words.end()) {
            return *(word + 1);
        }
        if (word->compare(0, option.size() + 1, option + "=") == 0) {
            return word->substr(option.size() + 1);
        }
    }
    return std::nullopt;
}

std::string ServiceProcess::absolute(const std::string& path) const {
    return (fs::path(m_folder) / path).string();
}

}  // namespace Hox::Ctl
