#include "persistence/unstored_keys.h"

#include <sstream>

#include "hox/linutils/files.h"
#include "hox/observer_tree/utils.h"

namespace fs = std::filesystem;

namespace Hox::ObserverTree {

namespace {

/// No key has it, as each key is also a path.
constexpr char separator = '\0';

}  // namespace

void UnstoredKeys::open(const fs::path& directory) {
    // Below the directory it could be the folder of a key.
    m_file = directory.empty() ? fs::path() : fs::path(directory.native() + ".unstored");
    if (m_file.empty() || !fs::exists(m_file)) {
        return;
    }
    std::istringstream keys(Hox::LinuxCppUtil::readFile(m_file));
    for (std::string key; std::getline(keys, key, separator);) {
        m_keys.insert(key);
    }
}

void UnstoredKeys::add(const ChangeSetType& changes, const std::string& exception) {
    const auto before = m_keys.size();
    for (const auto& change : changes) {
        if (change.first != exception) {
            m_keys.insert(change.first);
        }
    }
    if (m_keys.size() != before) {
        write();
    }
}

void UnstoredKeys::remove(const ChangeSetType& changes) {
    const auto before = m_keys.size();
    for (const auto& change : changes) {
        m_keys.erase(change.first);
    }
    if (m_keys.size() != before) {
        write();
    }
}

void UnstoredKeys::clear() {
    if (!m_keys.empty()) {
        m_keys.clear();
        write();
    }
}

ChangeSetType UnstoredKeys::removedFrom(const ChangeSetType& picture) const {
    ChangeSetType removals;
    for (const auto& key : m_keys) {
        if (picture.count(key) == 0) {
            addToChangeSet(removals, key, nullptr, nullptr, 0);
        }
    }
    return removals;
}

void UnstoredKeys::write() const {
    if (m_file.empty()) {
        return;
    }
    if (m_keys.empty()) {
        fs::remove(m_file);
        return;
    }
    // The removal of the last value may have removed all folders above it.
    Hox::LinuxCppUtil::makeFolders(m_file.parent_path());
    std::string text;
    for (const auto& key : m_keys) {
        text.append(key).push_back(separator);
    }
    const std::string temporary = m_file.native() + "~";
    Hox::LinuxCppUtil::writeFile(temporary, text);
    Hox::LinuxCppUtil::renameFile(temporary, m_file);
}

}  // namespace Hox::ObserverTree
