#include "finding_list.h"

#include <algorithm>
#include <iterator>
#include <string>

#include "hox/configuration/storable_key.h"
#include "hox/observer_tree/path_error.h"
#include "hox/observer_tree/path_manipulation.h"
#include "path_reason.h"
#include "printable.h"
#include "saved_value.h"

namespace Hox::Ctl {

namespace Configuration = Hox::Capability::Configuration;

namespace {

constexpr const char* notUnpacked = "INTERNAL";
constexpr const char* notLoaded = "FAILED_PRECONDITION";
constexpr const char* accepted = "";

/// What a service unpacks at most.
constexpr std::size_t unpackedEntries = 40000;
constexpr std::size_t unpackedBytes = std::size_t{8} << 20;
constexpr std::size_t longestName = 4096;
constexpr std::size_t longestComponent = 255;

/// The files with the identity that each export adds, if a package has none.
constexpr std::size_t identitySize = 13;

/// The folder of a path, empty at the top.
std::string parentOf(const std::string& path) {
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? "" : path.substr(0, slash);
}

/// All folders that the package makes.
std::set<std::string> foldersOf(const Package& package) {
    std::set<std::string> folders;
    for (const auto& entry : package.entries()) {
        const bool isFolder = entry.kind == PackageEntry::Kind::Folder;
        auto path = isFolder ? entry.path : parentOf(entry.path);
        while (!path.empty() && folders.insert(path).second) {
            path = parentOf(path);
        }
    }
    return folders;
}

/// Examines one package.
class Findings {
public:
    explicit Findings(const Package& package) : m_package(package) {}

    FindingList all() {
        for (const auto& entry : m_package.entries()) {
            examineEntry(entry);
        }
        for (const auto& [key, text] : m_package.values()) {
            examineKey(key);
            if (const auto fault = faultOf(text); !fault.empty()) {
                add(key, fault, accepted);
            }
        }
        examineTwins();
        examineIdentity();
        examineSize();
        return std::move(m_list);
    }

private:
    void add(const std::string& where, const std::string& text, const char* refusedAs) {
        auto& finding = *m_list.add_findings();
        finding.set_where(printable(where));
        finding.set_text(printable(text));
        finding.set_refused_as(refusedAs);
    }

    void examineEntry(const PackageEntry& entry) {
        const auto& name = entry.name;
        const auto components = componentsOf(name);
        if (name.empty()) {
            add("", "an entry without a name", notUnpacked);
            return;
        }
        if (name.front() == '/') {
            add(name, "absolute name", notUnpacked);
        }
        if (std::find(components.begin(), components.end(), "..") != components.end()) {
            add(name, "\"..\" in the name", notUnpacked);
        }
        if (entry.kind == PackageEntry::Kind::Other) {
            add(name, "neither file nor folder", notUnpacked);
        }
        if (!isUtf8(name)) {
            add(name, "the name is no UTF-8", notUnpacked);
        }
        if (name.size() > longestName || isTooDeep(components) || hasLongComponent(components)) {
            add(name, "the name is too long", notUnpacked);
        }
    }

    static bool isTooDeep(const std::vector<std::string>& components) {
        const auto most = Configuration::maxKeyComponents;
        return components.size() > most + 1 ||
               (components.size() == most + 1 && components.back() != "data");
    }

    /// No folder can have such a name.
    static bool hasLongComponent(const std::vector<std::string>& components) {
        return std::any_of(components.begin(), components.end(), [](const auto& component) {
            return component.size() > longestComponent;
        });
    }

    void examineKey(const std::string& key) {
        if (hasLongComponent(componentsOf(key))) {
            return;  // no service unpacks it
        }
        try {
            m_paths.parsePath(ObserverTree::PathType::Key, key);
        } catch (const ObserverTree::PathError& error) {
            add(key, reasonOf(error), notLoaded);
        }
        auto reason = Configuration::whyNotStorable(key);
        if (!reason.empty()) {
            reason.erase(std::min(reason.find(": "), reason.size()));  // repeats the key
            add(key, reason, notLoaded);
        } else if (sliceOf(key).empty()) {
            add(key, "a value outside of a slice", notLoaded);
        }
    }

    /// A store replaces everything whose name begins with that of the slice.
    void examineTwins() {
        const auto slices = m_package.slices();
        for (auto slice = slices.begin(); slice != slices.end(); ++slice) {
            for (auto other = std::next(slice);
                 other != slices.end() && other->compare(0, slice->size(), *slice) == 0; ++other) {
                add("/sys/conf/" + *slice, "replacing it also wipes /sys/conf/" + *other, accepted);
            }
        }
    }

    void examineIdentity() {
        for (const auto* const name : {"swvariant", "partno"}) {
            if (m_package.file(name) == nullptr) {
                add(name, "missing: the package counts as one of QAM part 0", accepted);
            }
        }
    }

    void examineSize() {
        std::size_t bytes = 0;
        for (const auto& entry : m_package.entries()) {
            bytes += entry.content.size();
        }
        if (m_package.entries().size() > unpackedEntries) {
            add("", "more than 40,000 entries", notUnpacked);
        }
        if (bytes > unpackedBytes) {
            add("", "more than 8 MiB when it is unpacked", notUnpacked);
        }
        const auto estimate = exportEstimate(m_package);
        m_list.set_estimate(estimate);
        m_list.set_limit(exportLimit);
        if (estimate > exportLimit) {
            add("",
                "its estimate is " + std::to_string(estimate) + " bytes, and above " +
                    std::to_string(exportLimit) + " it cannot be exported again",
                accepted);
        }
    }

    const Package& m_package;
    ObserverTree::PathManipulation m_paths;
    FindingList m_list;
};

}  // namespace

std::size_t exportEstimate(std::size_t bytesOfFiles, std::size_t folders) {
    constexpr std::size_t perFolder = 32;
    constexpr std::size_t reserve = 1536;
    return bytesOfFiles + std::max<std::size_t>(folders, 1) * perFolder + reserve;
}

std::size_t exportEstimate(const Package& package) {
    std::map<std::string, std::size_t> sizes;  // a later entry replaces an earlier one
    for (const auto& entry : package.entries()) {
        if (entry.kind == PackageEntry::Kind::File) {
            sizes[entry.path] = entry.content.size();
        }
    }
    std::size_t bytes = package.file("swvariant") == nullptr ? identitySize : 0;
    for (const auto& [path, size] : sizes) {
        bytes += size;
    }
    return exportEstimate(bytes, foldersOf(package).size());
}

FindingList findingsIn(const Package& package) {
    return Findings(package).all();
}

}  // namespace Hox::Ctl
