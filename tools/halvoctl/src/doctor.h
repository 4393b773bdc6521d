#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "doctor.pb.h"
#include "exit_code.h"
#include "machine_checks.h"
#include "service_process.h"
#include "session.h"

namespace Hox::Ctl {

/// How a service is examined.
struct DoctorWords {
    bool isBeforeStart = false;  ///< Nothing is sent: the service does not run yet.
    std::string user;            ///< As whom it will run; empty: as this user.
    std::string configFolder;    ///< Empty: what the service says, otherwise its default.
    std::string program;         ///< The same.
};

/// Examines one service: through its endpoint and, if it is on this machine, by its process and its
/// files.
class Doctor {
public:
    /// The session must outlive this object. Throws CtlError for a user that does not exist.
    Doctor(const Session& session, DoctorWords words, const std::string& endpoint);

    /// Whether the endpoint is on this machine.
    bool isLocal() const { return m_isLocal; }

    /// Where the service's files are.
    const ServiceFiles& files() const { return m_files; }

    /// Examines everything. Throws CtlError only if the user ends the command.
    CheckList examine(const Connection& connection) const;

private:
    void findProcess();
    void addMachine(CheckList& list) const;
    Check listeners() const;
    Check program() const;
    Check mdns() const;
    Check confirmations() const;

    const Session& m_session;
    DoctorWords m_words;
    std::string m_endpoint;
    std::uint16_t m_port = 0;
    bool m_isLocal = false;
    Listeners m_listeners;
    std::optional<ServiceProcess> m_process;
    ServiceFiles m_files;
};

/// Prints what the doctor finds at each endpoint. Returns No if something has failed.
ExitCode runDoctor(Session& session, const DoctorWords& words);

}  // namespace Hox::Ctl
