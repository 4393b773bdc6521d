#include "machine_checks.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <system_error>

#include "check_result.h"
#include "ctl_error.h"
#include "finding_list.h"
#include "hox/configuration/package_rules.h"
#include "hox/system_api/models.h"
#include "machine_identity.h"
#include "size_check.h"

namespace fs = std::filesystem;

namespace Hox::Ctl {

namespace {

constexpr const char* variantFile = "/etc/sw_variant";
constexpr const char* serialFile = "/etc/serial";

/// Nothing if this user may not see it.
std::optional<bool> isThere(const fs::path& path) {
    std::error_code error;
    const bool isFound = fs::exists(path, error);
    return error ? std::nullopt : std::optional(isFound);
}

Check unseen(const std::string& name, const std::string& path) {
    return warned(name, "only root can tell whether " + path + " is there");
}

/// A new empty folder that is removed with its content.
class ProbeFolder {
public:
    explicit ProbeFolder(const fs::path& parent)
        : m_path((parent / "halvoctl-XXXXXX").string()),
          m_error(::mkdtemp(m_path.data()) != nullptr ? 0 : errno),
          m_isMade(m_error == 0) {
        for (const auto* const name : {one, other}) {
            if (m_error == 0 && ::mkdir((m_path + name).c_str(), S_IRWXU) != 0) {
                m_error = errno;
            }
        }
    }
    ~ProbeFolder() {
        std::error_code error;
        if (m_isMade) {
            fs::remove_all(m_path, error);
        }
    }
    ProbeFolder(const ProbeFolder&) = delete;
    ProbeFolder& operator=(const ProbeFolder&) = delete;

    /// Why it could not be made, with two folders in it; 0 if it is there.
    int error() const { return m_error; }

    /// Exchanges the names of its two folders; the error number, 0 if that works.
    int exchange() const {
        return ::renameat2(AT_FDCWD, (m_path + one).c_str(), AT_FDCWD, (m_path + other).c_str(),
                           RENAME_EXCHANGE) == 0
                   ? 0
                   : errno;
    }

private:
    static constexpr const char* one = "/one";
    static constexpr const char* other = "/other";

    std::string m_path;
    int m_error;
    bool m_isMade;
};

/// The size of an export of this folder by the estimate of a service; nothing if this user may not
/// read all of it.
std::optional<std::size_t> estimateOf(const fs::path& folder) {
    std::size_t bytes = 0;
    std::size_t folders = 0;
    std::error_code error;
    for (auto entry = fs::recursive_directory_iterator(folder, error);
         !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
        if (entry->is_directory(error)) {
            ++folders;
            continue;
        }
        const auto size = error ? 0 : entry->file_size(error);
        if (error) {
            return std::nullopt;
        }
        bytes += size;
    }
    return error ? std::nullopt : std::optional(exportEstimate(bytes, folders));
}

}  // namespace

Check MachineChecks::configFolder() const {
    return folder("config-folder", m_files.configFolder);
}

Check MachineChecks::logFolder() const {
    return m_files.logFolder.empty()
               ? passed("log-folder", "not used: the service logs to its output")
               : folder("log-folder", m_files.logFolder);
}

/// A folder that is missing is made by the service.
Check MachineChecks::folder(const std::string& name, const std::string& path) const {
    auto existing = fs::path(path);
    auto isSeen = isThere(at(existing.string()));
    while (isSeen == false && existing.has_relative_path()) {
        existing = existing.parent_path();
        isSeen = isThere(at(existing.string()));
    }
    const auto writable = isSeen
                              ? mayAccess(m_files.user, at(existing.string()).string(), W_OK | X_OK)
                              : std::nullopt;
    if (!writable) {
        return warned(name, "only root and " + m_files.user.name + " can tell whether " + path +
                                " is writable");
    }
    if (!*writable) {
        return failed(name, existing.string() + " is not writable by " + m_files.user.name);
    }
    return passed(name, existing == path
                            ? path + " is writable by " + m_files.user.name
                            : path + " is missing, " + m_files.user.name + " can make it");
}

Check MachineChecks::exchange() const {
    const std::string name = "exchange";
    const auto& folder = m_files.configFolder;
    const auto isSeen = isThere(at(folder));
    if (!isSeen) {
        return unseen(name, folder);
    }
    if (!*isSeen) {
        return passed(name, folder + " is not there yet");
    }
    const ProbeFolder probe(at(folder));
    if (const int error = probe.error(); error != 0) {
        const auto text = "no scratch folder can be made in " + folder + ": " +
                          std::generic_category().message(error);
        return error == EACCES || error == EPERM ? warned(name, text) : failed(name, text);
    }
    const int error = probe.exchange();
    return error == 0 ? passed(name, "names can be exchanged in " + folder)
                      : failed(name, "names cannot be exchanged in " + folder +
                                         ", each save ends the service: " +
                                         std::generic_category().message(error));
}

Check MachineChecks::readable(const std::string& name, const std::string& path,
                              const std::string& consequence) const {
    const auto isReadable = mayAccess(m_files.user, at(path).string(), R_OK);
    if (!isReadable) {
        return warned(name,
                      "only root and " + m_files.user.name + " can tell whether it is readable");
    }
    return *isReadable ? passed(name, path + " is readable by " + m_files.user.name)
                       : failed(name, path + " is not readable by " + m_files.user.name + ": " +
                                          consequence);
}

Check MachineChecks::variant() const {
    const std::string name = "variant";
    const auto isSeen = isThere(at(variantFile));
    if (!isSeen) {
        return unseen(name, variantFile);
    }
    if (!*isSeen) {
        return passed(name, std::string(variantFile) + " is missing: the variant is QAM");
    }
    auto check = readable(name, variantFile, "every import fails");
    if (check.result() != "ok") {
        return check;
    }
    const auto variant = SystemAPI::deSerialize(at(variantFile));
    return variant == SystemAPI::HeadendSWVariant::UNKNOWN
               ? failed(name,
                        std::string(variantFile) + " has an unknown variant: every import fails")
               : check;
}

Check MachineChecks::serial() const {
    const std::string name = "serial";
    const auto isSeen = isThere(at(serialFile));
    if (!isSeen) {
        return unseen(name, serialFile);
    }
    if (!*isSeen) {
        return warned(name, std::string(serialFile) + " is missing: the part number is 0");
    }
    auto check = readable(name, serialFile,
                          "the part number is 0, and imports of packages of this model fail");
    if (check.result() != "ok") {
        return check;
    }
    try {
        static_cast<void>(identityOfMachine(m_files.root));
    } catch (const CtlError& error) {
        return failed(name, error.what());
    }
    return check;
}

Check MachineChecks::model() const {
    const std::string name = "model";
    try {
        const auto identity = identityOfMachine(m_files.root);
        if (identity.partNumber == 0) {
            return warned(name, "the model of this machine is not known: its part number is 0");
        }
        const auto known = SystemAPI::findModel(at(serialFile));
        return passed(name, known->name + ", " + identityText(identity));
    } catch (const CtlError&) {
        return failed(name, "the serial file has no part number");
    }
}

Check MachineChecks::budget() const {
    const std::string name = "package";
    const auto saved = m_files.configFolder + "/configuration";
    const auto isSeen = isThere(at(saved));
    if (!isSeen) {
        return unseen(name, saved);
    }
    if (!*isSeen) {
        return passed(name, "nothing is saved yet");
    }
    const auto estimate = estimateOf(at(saved));
    return estimate ? sizeCheck(*estimate) : warned(name, saved + " cannot be read");
}

Check MachineChecks::marker() const {
    const std::string name = "marker";
    const std::string file = Hox::Capability::Configuration::overrideMarker;
    const auto isSeen = isThere(at(file));
    if (!isSeen) {
        return unseen(name, file);
    }
    return *isSeen ? warned(name, file + " is there: packages of all machines are accepted")
                   : passed(name, "only packages of this kind of machine are accepted");
}

Check MachineChecks::leftover() const {
    const std::string name = "leftover";
    const auto scratch = m_files.configFolder + "/configuration.temp";
    const auto isSeen = isThere(at(scratch));
    if (!isSeen) {
        return unseen(name, scratch);
    }
    return *isSeen ? warned(name, scratch +
                                      " remains of an operation, which is under way or has been "
                                      "interrupted: the next one removes it")
                   : passed(name, "no operation has been interrupted");
}

Check MachineChecks::mib() const {
    const std::string name = "mib";
    const std::string file = "HALVO-QHED-MIB.txt";
    const auto traps = m_files.configFolder + "/state_monitoring_uservice/snmp/data";
    const auto isSeen = isThere(at(traps));
    if (!isSeen) {
        return unseen(name, traps);
    }
    std::error_code error;
    if (!*isSeen || fs::file_size(at(traps), error) == 0) {
        return passed(name, "no traps are sent");
    }
    const std::array<std::string, 3> folders{
        fs::path(m_files.program).parent_path().parent_path().string() + "/share/snmp/mibs",
        "/usr/share/snmp/mibs", "/usr/local/share/snmp/mibs"};
    for (const auto& folder : folders) {
        if (isThere(at(folder) / file) == true) {
            return passed(name, folder + "/" + file);
        }
    }
    return failed(name, file + " is missing: the first trap ends the service");
}

}  // namespace Hox::Ctl
