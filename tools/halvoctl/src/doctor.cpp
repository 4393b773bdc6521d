#include "doctor.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <set>
#include <vector>

#include "check_result.h"
#include "confirm_records.h"
#include "ctl_error.h"
#include "discovery.h"
#include "mdns_daemon.h"
#include "revert_timer.h"
#include "service_checks.h"

namespace Hox::Ctl {

namespace {

/// Whether the host of the endpoint is this machine by its text.
bool isThisMachine(const std::string& host) {
    static const std::set<std::string> names{"", "localhost", "[::1]", "::1", "0.0.0.0", "[::]"};
    constexpr std::size_t longest = 256;
    std::string own(longest, '\0');
    ::gethostname(own.data(), own.size() - 1);
    return names.count(host) > 0 || host.compare(0, 4, "127.") == 0 ||
           host == own.substr(0, own.find('\0'));
}

}  // namespace

Doctor::Doctor(const Session& session, DoctorWords words, const std::string& endpoint)
    : m_session(session), m_words(std::move(words)), m_endpoint(endpoint) {
    const auto colon = endpoint.rfind(':');
    const auto* const digits = endpoint.data() + std::min(colon + 1, endpoint.size());
    std::from_chars(digits, endpoint.data() + endpoint.size(), m_port);
    m_isLocal = colon != std::string::npos && isThisMachine(endpoint.substr(0, colon));
    m_files.user = m_words.user.empty() ? userOf(::geteuid()) : userNamed(m_words.user);
    if (m_isLocal) {
        m_listeners = listenersOn(m_port);
        findProcess();
    }
    if (!m_words.configFolder.empty()) {
        m_files.configFolder = m_words.configFolder;
    }
    if (!m_words.program.empty()) {
        m_files.program = m_words.program;
    }
}

void Doctor::findProcess() {
    if (m_words.isBeforeStart || m_listeners.processes.size() != 1) {
        return;
    }
    m_process.emplace(*m_listeners.processes.begin());
    m_files.root = m_process->root();
    m_files.program = m_process->program();
    if (m_words.user.empty()) {
        m_files.user = userOf(m_process->uid());
    }
    for (const auto* const option : {"-c", "--configdir"}) {
        if (const auto folder = m_process->valueOf(option)) {
            m_files.configFolder = m_process->absolute(*folder);
        }
    }
    if (m_process->has("--logstdout")) {
        m_files.logFolder.clear();
    }
}

CheckList Doctor::examine(const Connection& connection) const {
    CheckList list;
    list.set_endpoint(m_endpoint);
    if (!m_words.isBeforeStart) {
        for (auto& check : checkService(connection)) {
            *list.add_checks() = std::move(check);
        }
    }
    if (m_isLocal) {
        addMachine(list);
    } else {
        *list.add_checks() =
            warned("machine", m_endpoint + " is another machine: only there it can be examined");
    }
    *list.add_checks() = confirmations();
    return list;
}

void Doctor::addMachine(CheckList& list) const {
    const MachineChecks machine(m_files);
    *list.add_checks() = listeners();
    *list.add_checks() = machine.configFolder();
    *list.add_checks() = machine.logFolder();
    *list.add_checks() = machine.exchange();
    *list.add_checks() = machine.variant();
    *list.add_checks() = machine.serial();
    *list.add_checks() = machine.model();
    if (m_words.isBeforeStart) {
        *list.add_checks() = machine.budget();
    } else {
        *list.add_checks() = program();
    }
    *list.add_checks() = machine.marker();
    *list.add_checks() = machine.leftover();
    *list.add_checks() = machine.mib();
    *list.add_checks() = mdns();
}

Check Doctor::listeners() const {
    const std::string name = "listeners";
    const auto port = "port " + std::to_string(m_port);
    const auto& processes = m_listeners.processes;
    const auto numbers = fmt::format("{}", fmt::join(processes, ", "));
    if (processes.size() > (m_words.isBeforeStart ? 0U : 1U)) {
        return failed(name, m_words.isBeforeStart ? "process " + numbers + " uses " + port
                                                  : "processes " + numbers + " share " + port +
                                                        ": each gets some of the connections");
    }
    if (!m_listeners.isComplete) {
        return warned(name, "only root sees which processes listen on " + port);
    }
    if (m_words.isBeforeStart) {
        return passed(name, port + " is free");
    }
    return processes.empty() ? warned(name, "no process listens on " + port + " in this network")
                             : passed(name, "process " + numbers + " on " + port);
}

Check Doctor::program() const {
    const std::string name = "program";
    if (!m_process || m_process->program().empty()) {
        return warned(name, "the running program is not known");
    }
    return m_process->isProgramDeleted()
               ? warned(name, m_process->program() +
                                  " has been replaced: the former version runs until a restart")
               : passed(name, m_process->program());
}

Check Doctor::mdns() const {
    constexpr std::chrono::milliseconds limit(1000);
    const auto reason = whyNoMdns(limit);
    if (reason.empty()) {
        return passed("avahi", "the mDNS daemon answers");
    }
    return m_words.isBeforeStart
               ? warned("avahi", "no mDNS daemon, the service waits for it: " + reason)
               : failed("avahi", "no mDNS daemon, nobody finds the service: " + reason);
}

Check Doctor::confirmations() const {
    std::vector<std::string> waiting;
    std::vector<std::string> expired;
    try {
        for (const auto& record : pendingConfirmations(m_session.surroundings())) {
            if (record.content.kind() != LOG) {
                const auto state = pendingStateOf(record, m_session.now());
                (state == EXPIRED ? expired : waiting).push_back(record.id);
            }
        }
    } catch (const CtlError& error) {
        return warned("confirmations", error.what());
    }
    std::vector<std::string> texts;
    if (!expired.empty()) {
        texts.push_back(fmt::format("nothing reverts any more: {}", fmt::join(expired, ", ")));
    }
    if (!waiting.empty()) {
        texts.push_back(fmt::format("to be confirmed: {}", fmt::join(waiting, ", ")));
    }
    return texts.empty() ? passed("confirmations", "nothing waits to be confirmed")
                         : warned("confirmations", fmt::format("{}", fmt::join(texts, "; ")));
}

namespace {

/// What is found at one endpoint; one that is looked for on the network may not be there.
CheckList examineAt(const Session& session, const DoctorWords& words, const std::string& endpoint) {
    std::unique_ptr<Connection> connection;
    try {
        connection = session.connect(endpoint);
    } catch (const CtlError& error) {
        if (error.code() == ExitCode::Interrupted) {
            throw;
        }
        CheckList list;
        list.set_endpoint(endpoint);
        *list.add_checks() = failed("endpoint", error.what());
        return list;
    }
    return Doctor(session, words, connection->endpoint()).examine(*connection);
}

}  // namespace

ExitCode runDoctor(Session& session, const DoctorWords& words) {
    auto code = ExitCode::Done;
    const auto& endpoints = session.options().endpoints;
    if (words.isBeforeStart && std::any_of(endpoints.begin(), endpoints.end(), isOnNetwork)) {
        throw CtlError(ExitCode::Usage, "--before-start looks for nothing on the network",
                       "name the endpoint as host:port");
    }
    for (const auto& endpoint : endpoints) {
        const auto list = examineAt(session, words, endpoint);
        if (session.isJson()) {
            session.print(list);
        } else if (endpoints.size() > 1) {
            session.out() << list.endpoint() << '\n';
        }
        for (const auto& check : list.checks()) {
            if (check.result() == "FAIL") {
                code = ExitCode::No;
            }
            if (!session.isJson()) {
                session.out() << lineOf(check, session.painter()) << '\n';
            }
        }
    }
    return code;
}

}  // namespace Hox::Ctl
