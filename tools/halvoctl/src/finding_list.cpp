#include "finding_list.h"

#include <algorithm>
#include <climits>
#include <iterator>
#include <set>

#include "configuration.pb.h"
#include "ctl_error.h"
#include "error_reason.h"
#include "hox/archive/error/archive_error.h"
#include "hox/archive/foreign_archive.h"
#include "hox/configuration/storable_key.h"
#include "hox/observer_tree/path_error.h"
#include "hox/observer_tree/path_manipulation.h"
#include "machine_identity.h"
#include "printable.h"
#include "saved_value.h"

namespace Hox::Ctl {

namespace Configuration = Hox::Capability::Configuration;

namespace {

constexpr const char* notReceived = "RESOURCE_EXHAUSTED";
constexpr const char* notUnpacked = "INTERNAL";
constexpr const char* notLoaded = "FAILED_PRECONDITION";
constexpr const char* accepted = "";

/// The largest request that a server of gRPC takes unless it is told otherwise.
constexpr std::size_t largestRequest = std::size_t{4} << 20;

/// The files with the identity that each export adds, if a package has none.
constexpr std::size_t identitySize = 13;

void addTo(FindingList& list, const std::string& where, const std::string& text,
           const char* refusedAs) {
    auto& finding = *list.add_findings();
    finding.set_where(printable(where));
    finding.set_text(printable(text));
    finding.set_refused_as(refusedAs);
}

/// Examines one package.
class Findings {
public:
    explicit Findings(const std::string& archive)
        : m_archive(archive), m_package(archive), m_folders(m_package.folders()) {}

    FindingList all() {
        for (const auto& entry : m_package.entries()) {
            examineEntry(entry);
        }
        for (const auto& [key, text] : m_package.values()) {
            if (key.find_first_of("\n\r") != std::string::npos) {
                add(key, "a line end in the key: it is not loaded", accepted);
                continue;
            }
            examineKey(key);
            if (const auto fault = faultOf(text); !fault.empty()) {
                add(key, fault, accepted);
            }
        }
        examineFolders();
        examineTwins();
        examineIdentity();
        examineUnpacking();
        examineSize();
        return std::move(m_list);
    }

private:
    void add(const std::string& where, const std::string& text, const char* refusedAs) {
        addTo(m_list, where, text, refusedAs);
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
        if (entry.kind == PackageEntry::Kind::File && components.empty()) {
            add(name, "a file without a name", notUnpacked);
        }
        if (!isUtf8(name)) {
            add(name, "the name is no UTF-8", notUnpacked);
        }
        if (name.size() > Archive::maxForeignName || isTooDeep(components) ||
            hasLongComponent(components)) {
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
        return std::any_of(components.begin(), components.end(),
                           [](const auto& component) { return component.size() > NAME_MAX; });
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

    void examineFolders() {
        for (const auto& folder : m_folders) {
            if (m_package.file(folder) != nullptr) {
                add(folder, "a file and a folder of the same name", notUnpacked);
            }
        }
    }

    void examineIdentity() {
        for (const auto* const name : {packageVariant, packagePartNumber}) {
            if (m_folders.count(name) > 0) {
                add(name, "a folder where a file must be", notLoaded);
                return;
            }
            if (m_package.file(name) == nullptr) {
                add(name, "missing: the package counts as one of QAM part 0", accepted);
            }
        }
        const auto identity = identityOf(m_package);
        if (!identity) {
            add(packagePartNumber, "the part number is not a number", notLoaded);
        } else if (identity->variant == SystemAPI::HeadendSWVariant::UNKNOWN) {
            add(packageVariant, "an unknown variant: only a machine of one takes the package",
                accepted);
        }
    }

    /// The reader of the services finds what is wrong with the archive itself.
    void examineUnpacking() {
        const auto isRefused =
            std::any_of(m_list.findings().begin(), m_list.findings().end(),
                        [](const auto& finding) { return finding.refused_as() == notUnpacked; });
        if (isRefused) {
            return;
        }
        try {
            static_cast<void>(Archive::readForeignArchive(
                m_archive, {Configuration::maxPackageEntries, Configuration::maxPackageContent,
                            Configuration::maxKeyComponents + 1}));
        } catch (const Archive::ArchiveError& error) {
            add("", reasonOf(error), notUnpacked);
        }
    }

    void examineSize() {
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

    const std::string& m_archive;
    const Package m_package;
    const std::set<std::string> m_folders;
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
    std::size_t bytes = package.file(packageVariant) == nullptr ? identitySize : 0;
    for (const auto& [path, size] : sizes) {
        bytes += size;
    }
    return exportEstimate(bytes, package.folders().size());
}

FindingList findingsIn(const std::string& archive) {
    FindingList list;
    try {
        list = Findings(archive).all();
    } catch (const CtlError& error) {
        list.set_limit(exportLimit);
        addTo(list, "", error.what(), notUnpacked);
    }
    Configuration::Api::UpdateSysConfReq request;
    request.mutable_update_type()->set_sysconfdata(archive);
    if (request.ByteSizeLong() > largestRequest) {
        addTo(list, "", "larger than the 4 MiB that a service receives", notReceived);
    }
    return list;
}

}  // namespace Hox::Ctl
