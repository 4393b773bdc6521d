#include "snmp_commands.h"

#include <fmt/format.h>

#include <charconv>

#include "call_error.h"
#include "ctl_error.h"
#include "output.pb.h"
#include "printable.h"
#include "report_table.h"
#include "state_client.h"

namespace Hox::Ctl {

namespace Api = Hox::Capability::StateMonitoring::Api;

namespace {

const std::string testService = "halvoctl";
const std::string testSource = "snmp/test";

std::string managerText(const Api::SnmpConfiguration& manager) {
    return fmt::format("{} port {} community {}", printable(manager.managerip()),
                       printable(manager.trapport()), printable(manager.community()));
}

[[noreturn]] void refuseManager(const std::string& reason) {
    throw CtlError(ExitCode::Usage, "not sent: " + reason);
}

/// A service takes any manager, and logs only that it cannot use it.
void checkManager(const ManagerWords& words) {
    constexpr std::size_t longestCommunity = 256;
    unsigned port = 0;
    const auto* const end = words.port.data() + words.port.size();
    const auto parsed = std::from_chars(words.port.data(), end, port);
    constexpr unsigned lastPort = 65535;
    if (parsed.ec != std::errc() || parsed.ptr != end || port == 0 || port > lastPort) {
        refuseManager("\"" + words.port + "\" is no port");
    }
    if (words.address.empty()) {
        refuseManager("the manager has no address");
    }
    if (words.community.empty() || words.community.size() > longestCommunity) {
        refuseManager("a community has 1 to 256 bytes");
    }
}

StateClient::Report testReport(const Session& session, const std::string& type, Severity severity) {
    StateClient::Report report;
    report.set_service_id(testService);
    report.set_type(type);
    report.set_source(testSource);
    report.set_severity(severity);
    report.set_msg("Test of the traps");
    *report.mutable_timestamp() = timeStamp(session.now());
    return report;
}

/// Reports OK also after a failure: the bad report may have arrived all the same.
void reportBadAndOk(const Session& session, const StateClient& client, const std::string& type) {
    const auto report = [&](const std::string& severity) {
        client.report(testReport(session, type, parseSeverity(severity)));
    };
    try {
        report("warn");
        report("ok");
    } catch (const CtlError& failure) {
        try {
            report("ok");
        } catch (const CtlError&) {
            throw CtlError(failure.code(), failure.what(),
                           fmt::format("halvoctl state ok {}/{}/{} ends the bad state of the test",
                                       testService, type, testSource));
        }
        throw;
    }
}

}  // namespace

const std::vector<std::string>& trapTypes() {
    static const std::vector<std::string> types{
        "Cap_TSState_Overload", "Cap_RFInput_TunerConfedNotLocked", "Cap_cam_CardNotDescrambling"};
    return types;
}

ExitCode showManager(Session& session) {
    const auto connection = session.connect();
    const auto manager = StateClient(*connection).manager();
    if (session.isJson()) {
        Api::GetSnmpConfResp answer;
        if (manager) {
            *answer.mutable_conf() = *manager;
        }
        session.print(answer);
    } else {
        session.out() << (manager ? managerText(*manager) : "no manager is set: no traps are sent")
                      << '\n';
    }
    return ExitCode::Done;
}

ExitCode setManager(Session& session, const ManagerWords& words) {
    checkManager(words);
    const auto connection = session.connect();
    Api::SnmpConfiguration manager;
    manager.set_managerip(words.address);
    manager.set_trapport(words.port);
    manager.set_community(words.community);
    try {
        StateClient(*connection).setManager(manager);
    } catch (const CallError& error) {
        if (error.code() != ExitCode::Refused ||
            error.statusCode() != grpc::StatusCode::UNAVAILABLE) {
            throw;
        }
        throw error.withHint("only a system monitor (--sys_mon) sends traps");
    }
    return ExitCode::Done;
}

ExitCode clearManager(Session& session) {
    StateClient(*session.connect()).clearManager();
    return ExitCode::Done;
}

ExitCode testTraps(Session& session, const std::string& type) {
    const auto manager = StateClient(*session.connect()).manager();
    if (!manager) {
        throw CtlError(ExitCode::Usage, "not sent: no manager is set",
                       "halvoctl snmp set MANAGER sets one");
    }
    // The user cannot end it between the two: the bad state would stay.
    Interrupt none;
    const auto connections = session.connectAll(none);
    const StateClient client(*connections.front());
    reportBadAndOk(session, client, type);
    TrapTest test;
    test.set_type(type);
    *test.mutable_manager() = *manager;
    if (session.isJson()) {
        session.print(test);
    } else {
        session.out() << fmt::format("Reported {} bad and OK: two traps for {}\n", type,
                                     managerText(*manager));
    }
    return ExitCode::Done;
}

}  // namespace Hox::Ctl
