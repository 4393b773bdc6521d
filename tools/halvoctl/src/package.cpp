#include "package.h"

#include <algorithm>

namespace Hox::Ctl {

namespace {

const std::string keyRoot = "/sys/conf/";

/// The name of the file in the folder of a key that has the value.
const std::string valueFile = "/data";

/// The folder of a path, empty at the top.
std::string parentOf(const std::string& path) {
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? "" : path.substr(0, slash);
}

/// The key whose value the file holds, empty if it holds none.
std::string keyOf(const std::string& path) {
    const auto key = "/" + path;
    const bool isValue =
        key.size() > keyRoot.size() + valueFile.size() &&
        key.compare(0, keyRoot.size(), keyRoot) == 0 &&
        key.compare(key.size() - valueFile.size(), valueFile.size(), valueFile) == 0;
    return isValue ? key.substr(0, key.size() - valueFile.size()) : "";
}

/// Where the slice of a key ends, npos if the key is in none.
std::size_t sliceEnd(const std::string& key) {
    if (key.compare(0, keyRoot.size(), keyRoot) != 0) {
        return std::string::npos;
    }
    auto end = keyRoot.size() - 1;
    for (int components = 0; components < 3 && end != std::string::npos; ++components) {
        end = key.find('/', end + 1);
    }
    return end;
}

}  // namespace

Package::Package(const std::string& archive) : m_entries(readPackageEntries(archive)) {
    for (std::size_t place = 0; place < m_entries.size(); ++place) {
        const auto& entry = m_entries[place];
        if (entry.kind != PackageEntry::Kind::File) {
            continue;
        }
        m_files[entry.path] = place;
        const auto key = keyOf(entry.path);
        if (!key.empty()) {
            m_values[key] = entry.content;
        }
    }
}

const std::string* Package::file(const std::string& path) const {
    const auto found = m_files.find(path);
    return found == m_files.end() ? nullptr : &m_entries[found->second].content;
}

std::set<std::string> Package::folders() const {
    std::set<std::string> found;
    std::set<std::string> files;
    for (const auto& entry : m_entries) {
        if (entry.kind == PackageEntry::Kind::File) {
            files.insert(entry.path);
        }
        const bool isMade =
            entry.kind == PackageEntry::Kind::Folder && files.count(entry.path) == 0;
        auto path = isMade ? entry.path : parentOf(entry.path);
        while (!path.empty() && found.insert(path).second) {
            path = parentOf(path);
        }
    }
    return found;
}

std::set<std::string> Package::slices() const {
    std::set<std::string> found;
    for (const auto& [key, value] : m_values) {
        found.insert(sliceOf(key));
    }
    found.erase("");
    return found;
}

bool Package::hasSameValues(const Package& other) const {
    return valuesWithoutStateIds() == other.valuesWithoutStateIds();
}

std::map<std::string, std::string> Package::valuesWithoutStateIds() const {
    auto found = m_values;
    for (auto value = found.begin(); value != found.end();) {
        value = isStateId(value->first) ? found.erase(value) : std::next(value);
    }
    return found;
}

std::size_t Package::keyCount() const {
    return static_cast<std::size_t>(
        std::count_if(m_values.begin(), m_values.end(), [](const auto& saved) {
            return !sliceOf(saved.first).empty() && !isStateId(saved.first);
        }));
}

std::string sliceOf(const std::string& key) {
    const auto end = sliceEnd(key);
    return end == std::string::npos ? "" : key.substr(keyRoot.size(), end - keyRoot.size());
}

bool isStateId(const std::string& key) {
    const auto end = sliceEnd(key);
    return end != std::string::npos && key.compare(end, std::string::npos, "/__csid") == 0;
}

}  // namespace Hox::Ctl
