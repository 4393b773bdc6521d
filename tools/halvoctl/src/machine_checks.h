#pragma once

#include <filesystem>
#include <string>

#include "doctor.pb.h"
#include "unix_user.h"

namespace Hox::Ctl {

/// The files of one service on this machine.
struct ServiceFiles {
    std::string root;  ///< Below which the service's paths are.
    std::string configFolder = "/var/lib/halvo";
    std::string logFolder = "/var/log/halvo";  ///< Empty: it logs to its output.
    std::string program;                       ///< Empty: not known.
    UnixUser user;                             ///< As whom it runs.
};

/// Examines what a service needs on its machine. Sends nothing, and changes nothing but for a
/// scratch folder that is removed again.
class MachineChecks {
public:
    explicit MachineChecks(ServiceFiles files) : m_files(std::move(files)) {}

    /// Whether the service may write to its folders.
    Check configFolder() const;
    Check logFolder() const;

    /// Whether the file system of the configuration can exchange two names in one step.
    Check exchange() const;

    /// Whether the files with the identity of the machine can be read, and make sense.
    Check variant() const;
    Check serial() const;
    Check model() const;

    /// Whether the saved configuration is small enough to be exported.
    Check budget() const;

    /// Whether services accept the packages of all machines.
    Check marker() const;

    /// Whether an interrupted operation has left something over.
    Check leftover() const;

    /// Whether the MIB is there, if traps are sent.
    Check mib() const;

private:
    std::filesystem::path at(const std::string& path) const { return m_files.root + path; }
    Check folder(const std::string& name, const std::string& path) const;
    Check readable(const std::string& name, const std::string& path,
                   const std::string& consequence) const;

    ServiceFiles m_files;
};

}  // namespace Hox::Ctl
