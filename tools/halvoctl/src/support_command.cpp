#include "support_command.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <sstream>

#include "check_result.h"
#include "child_process.h"
#include "clock_text.h"
#include "conf_client.h"
#include "ctl_error.h"
#include "json_text.h"
#include "logger_client.h"
#include "output_file.h"
#include "pack_files.h"
#include "package.h"
#include "saving_status.h"
#include "service_file.h"
#include "state_client.h"

namespace Hox::Ctl {

namespace {

std::string jsonOf(const google::protobuf::Message& message) {
    return JsonText(*message.GetDescriptor()->file()->pool()).indented(message);
}

ReportList listOf(const std::vector<StateClient::Stored>& reports) {
    ReportList list;
    for (const auto& report : reports) {
        *list.add_reports() = report;
    }
    return list;
}

std::string textOf(const CheckList& list) {
    std::string text;
    for (const auto& check : list.checks()) {
        text += lineOf(check, Painter(false)) + "\n";
    }
    return text;
}

}  // namespace

/// What cannot be had is no reason to go without the rest.
void SupportCommand::attempt(const std::string& name, const std::function<std::string()>& get) {
    try {
        m_files[name] = m_redactor.redacted(get());
    } catch (const CtlError& error) {
        if (error.code() == ExitCode::Interrupted) {
            throw;
        }
        m_result.add_missing(m_redactor.redacted(name + ": " + error.what()));
    }
}

ExitCode SupportCommand::run(const std::string& path) {
    if (path == "-") {
        throw CtlError(ExitCode::Usage, "a support file is not for the output", "name a file");
    }
    const auto connection = m_session.connect();
    const Doctor doctor(m_session, m_words, connection->endpoint());
    learnSecrets(*connection, doctor);
    attempt("doctor.txt", [&] { return textOf(doctor.examine(*connection)); });
    addService(*connection);
    addPackage(*connection);
    if (doctor.isLocal()) {
        addMachine(doctor);
    }
    std::string missing;
    for (const auto& name : m_result.missing()) {
        missing += name + "\n";
        m_session.note("missing: " + name);
    }
    m_files["about.txt"] = "halvoctl " HALVOCTL_VERSION "\nendpoint " + connection->endpoint() +
                           "\nmade " + sinceText(m_session.now(), m_session.now()) + "\n" + missing;
    writeWholeFile(path, packFiles(m_files));
    m_result.set_path(path);
    for (const auto& [name, content] : m_files) {
        m_result.add_content(name);
    }
    if (m_session.isJson()) {
        m_session.print(m_result);
    } else {
        m_session.out() << "Wrote " << path << " with " << m_files.size()
                        << " files, without the community of traps.\n";
    }
    return ExitCode::Done;
}

/// Called before anything else is collected: the log may also contain the community.
void SupportCommand::learnSecrets(const Connection& connection, const Doctor& doctor) {
    try {
        const auto manager = StateClient(connection).manager();
        m_redactor.add(manager ? manager->community() : "");
    } catch (const CtlError& error) {
        if (error.code() == ExitCode::Interrupted) {
            throw;
        }
    }
    if (!doctor.isLocal()) {
        return;
    }
    try {
        const auto& files = doctor.files();
        m_redactor.addSaved(
            readServiceFile(files.root, files.configFolder, "state_monitoring_uservice/snmp/data")
                .value_or(""));
    } catch (const CtlError&) {
        return;  // no traps, or not readable for this user, nor for this command
    }
}

void SupportCommand::addService(const Connection& connection) {
    const StateClient client(connection);
    attempt("state/latest.json", [&] { return jsonOf(listOf(client.latest())); });
    attempt("state/archive.json", [&] { return jsonOf(listOf(client.archived({}))); });
    attempt("state/severity.txt", [&] { return severityText(client.current()) + "\n"; });
    attempt("state/traps.json",
            [&] { return jsonOf(client.manager().value_or(StateClient::Manager())); });
    attempt("configuration/status.json", [&] { return jsonOf(savingStatus(connection)); });
    attempt("loggers.json", [&] { return jsonOf(LoggerClient(connection).all()); });
}

/// File by file: inside of a package nothing could be redacted.
void SupportCommand::addPackage(const Connection& connection) {
    std::vector<PackageEntry> entries;
    attempt("configuration/content.txt", [&] {
        const Package package(ConfClient(connection).exportPackage());
        entries = package.entries();
        std::string names;
        for (const auto& entry : entries) {
            names += entry.path + "\n";
            m_redactor.addSaved(entry.content);
        }
        return names;
    });
    for (const auto& entry : entries) {
        const auto components = componentsOf(entry.path);
        const bool leadsOut =
            std::find(components.begin(), components.end(), "..") != components.end();
        if (entry.kind == PackageEntry::Kind::File && !leadsOut) {
            attempt("configuration/package/" + entry.path, [&entry] { return entry.content; });
        }
    }
}

void SupportCommand::addLog(const ServiceFiles& files, const std::string& log) {
    std::optional<std::string> content;
    attempt("log/" + log, [&] {
        content = readServiceFile(files.root, files.logFolder, log);
        return content.value_or("");
    });
    if (!content) {
        m_files.erase("log/" + log);
    }
}

void SupportCommand::addMachine(const Doctor& doctor) {
    constexpr std::chrono::seconds limit(10);
    const auto& files = doctor.files();
    const auto program = std::filesystem::path(files.program).filename().string();
    const auto name = program.empty() ? "halvo-system" : program;
    for (const auto* const end : {".log", ".1.log"}) {
        if (!files.logFolder.empty()) {
            addLog(files, name + end);
        }
    }
    attempt("log/journal.txt", [&] {
        return outputOf({"journalctl", "-t", name, "-n", "5000", "--no-pager", "-o", "short-iso"},
                        limit);
    });
}

}  // namespace Hox::Ctl
