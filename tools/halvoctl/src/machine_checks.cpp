#include "machine_checks.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <system_error>

#include "check_result.h"
#include "ctl_error.h"
#include "finding_list.h"
#include "hox/system_api/models.h"
#include "machine_identity.h"
#include "package_verdict.h"
#include "size_check.h"

namespace fs = std::filesystem;

namespace Hox::Ctl {

namespace {

constexpr const char* variantFile = "/etc/sw_variant";
constexpr const char* serialFile = "/etc/serial";

bool isThere(const fs::path& path) {
    std::error_code error;
    return fs::exists(path, error);
}

/// A new empty folder that is removed with its content.
class ProbeFolder {
public:
    explicit ProbeFolder(const fs::path& parent)
        : m_path((parent / "halvoctl-XXXXXX").string()),
          m_isMade(::mkdtemp(m_path.data()) != nullptr) {}
    ~ProbeFolder() {
        std::error_code error;
        if (m_isMade) {
            fs::remove_all(m_path, error);
        }
    }
    ProbeFolder(const ProbeFolder&) = delete;
    ProbeFolder& operator=(const ProbeFolder&) = delete;

    /// Exchanges the names of two folders in it; the error number, 0 if that works.
    int exchange() const {
        const auto one = m_path + "/one";
        const auto other = m_path + "/other";
        std::error_code error;
        if (!m_isMade || !fs::create_directory(one, error) || !fs::create_directory(other, error)) {
            return EACCES;
        }
        return ::renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE) == 0
                   ? 0
                   : errno;
    }

private:
    std::string m_path;
    bool m_isMade;
};

/// The size of an export of this folder by the estimate of a service.
std::size_t estimateOf(const fs::path& folder) {
    std::size_t bytes = 0;
    std::size_t folders = 0;
    std::error_code error;
    for (auto entry = fs::recursive_directory_iterator(folder, error);
         !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
        if (entry->is_directory(error)) {
            ++folders;
        } else {
            bytes += entry->file_size(error);
        }
    }
    return exportEstimate(bytes, folders);
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
    while (!isThere(at(existing.string())) && existing.has_relative_path()) {
        existing = existing.parent_path();
    }
    const auto writable = mayAccess(m_files.user, at(existing.string()).string(), W_OK | X_OK);
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
    if (!isThere(at(m_files.configFolder))) {
        return passed(name, m_files.configFolder + " is not there yet");
    }
    const int error = ProbeFolder(at(m_files.configFolder)).exchange();
    if (error == 0) {
        return passed(name, "names can be exchanged in " + m_files.configFolder);
    }
    if (error == EACCES) {
        return warned(name, "no scratch folder can be made in " + m_files.configFolder);
    }
    return failed(name,
                  "names cannot be exchanged in " + m_files.configFolder +
                      ", each save ends the service: " + std::generic_category().message(error));
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
    if (!isThere(at(variantFile))) {
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
    if (!isThere(at(serialFile))) {
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
    const auto saved = m_files.configFolder + "/configuration";
    if (!isThere(at(saved))) {
        return passed("package", "nothing is saved yet");
    }
    return sizeCheck(estimateOf(at(saved)));
}

Check MachineChecks::marker() const {
    return hasOverrideMarker(m_files.root)
               ? warned("marker", std::string(overrideMarker) +
                                      " is there: packages of all machines are accepted")
               : passed("marker", "only packages of this kind of machine are accepted");
}

Check MachineChecks::leftover() const {
    const auto scratch = m_files.configFolder + "/configuration.temp";
    return isThere(at(scratch))
               ? warned("leftover", scratch +
                                        " remains of an operation, which is under way or has "
                                        "been interrupted: the next one removes it")
               : passed("leftover", "no operation has been interrupted");
}

Check MachineChecks::mib() const {
    const std::string name = "mib";
    const std::string file = "HALVO-QHED-MIB.txt";
    std::error_code error;
    const auto traps = at(m_files.configFolder + "/state_monitoring_uservice/snmp/data");
    if (fs::file_size(traps, error) == 0 || error) {
        return passed(name, "no traps are sent");
    }
    const std::array<std::string, 3> folders{
        fs::path(m_files.program).parent_path().parent_path().string() + "/share/snmp/mibs",
        "/usr/share/snmp/mibs", "/usr/local/share/snmp/mibs"};
    for (const auto& folder : folders) {
        if (isThere(at(folder) / file)) {
            return passed(name, folder + "/" + file);
        }
    }
    return failed(name, file + " is missing: the first trap ends the service");
}

}  // namespace Hox::Ctl
