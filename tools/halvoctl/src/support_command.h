#pragma once

#include <functional>
#include <map>
#include <string>

#include "doctor.h"
#include "exit_code.h"
#include "redactor.h"
#include "session.h"

namespace Hox::Ctl {

/// Collects what an engineer needs to find a fault from far away: the findings of the doctor,
/// state, reports, loggers, the saved configuration, log and journal; without the community of
/// traps.
class SupportCommand {
public:
    /// The session must outlive this object.
    SupportCommand(Session& session, DoctorWords words)
        : m_session(session), m_words(std::move(words)) {}

    /// Writes everything that can be had into one archive. Throws CtlError if that cannot be
    /// written.
    ExitCode run(const std::string& path);

private:
    void attempt(const std::string& name, const std::function<std::string()>& get);
    void addService(const Connection& connection);
    void addPackage(const Connection& connection);
    void addMachine(const Doctor& doctor);
    void addLog(const ServiceFiles& files, const std::string& log);
    void learnSecrets(const Connection& connection, const Doctor& doctor);

    Session& m_session;
    DoctorWords m_words;
    Redactor m_redactor;
    std::map<std::string, std::string> m_files;
    SupportFile m_result;
};

}  // namespace Hox::Ctl
