#include "trap_forwarder.h"

#include <chrono>
#include <map>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "host_lookup.h"
#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"
#include "manager_address.h"
#include "snmp_manager.h"

namespace Hox::Capability::StateMonitoring {

namespace {

/// How long a change of the configuration waits for the address of a host: most names are known
/// within milliseconds, and their traps begin with the answer to the operator then.
constexpr std::chrono::milliseconds lookupPatience{200};

/// The traps of a bad state and of OK.
using TrapNames = std::pair<const char*, const char*>;

const std::map<std::string, TrapNames>& trapTable() {
    static const std::map<std::string, TrapNames> table = {
        {"Cap_RFInput_TunerConfedNotLocked",
         {"HALVO-QHED-MIB::qhedTunerMissingSignalLock", "HALVO-QHED-MIB::qhedTunerHasSignalLock"}},
        {"Cap_cam_CardNotDescrambling",
         {"HALVO-QHED-MIB::qhedCamDescramblingError", "HALVO-QHED-MIB::qhedCamDescramblingOk"}},
        {"Cap_TSState_Overload",
         {"HALVO-QHED-MIB::qhedOutputOverloadError", "HALVO-QHED-MIB::qhedOutputOverloadOk"}},
    };
    return table;
}

}  // namespace

TrapForwarder::TrapForwarder()
    : m_logger(Hox::Log::getLogsystem()->getLogger("StateMonObsHelper")) {}

TrapForwarder::~TrapForwarder() = default;

void TrapForwarder::configure(const Api::SnmpConfiguration& configuration) {
    m_lookup.reset();
    m_wanted = configuration;
    const ManagerAddress address(configuration.managerip());
    switch (address.kind) {
        case ManagerAddress::Kind::Number:
            open(ManagerAddress::peerName(address.host));
            break;
        case ManagerAddress::Kind::Name:
            lookUp(address.host);
            break;
        case ManagerAddress::Kind::Invalid:
            logFailure(SnmpManager::notOpenedText);
            break;
    }
}

void TrapForwarder::disable() {
    m_lookup.reset();
    m_snmpManager.reset();
}

void TrapForwarder::forward(const Api::StateNotification& notification) {
    const auto row = trapTable().find(notification.type());
    if (row == trapTable().end()) {
        return;
    }
    takeAddress();
    if (!m_snmpManager) {
        return;
    }
    const auto& [bad, good] = row->second;
    m_snmpManager->sendTrap({notification.severity() == Api::StateSeverity::OK ? good : bad,
                             notification.severity(), notification.source(), notification.msg()});
}

void TrapForwarder::lookUp(const std::string& host) {
    try {
        m_lookup =
            std::make_unique<HostLookup>(host, [this] { logFailure(SnmpManager::notOpenedText); });
        m_lookup->waitForFirstAttempt(lookupPatience);
        takeAddress();
    } catch (const std::system_error& error) {
        logFailure(error.what());
    }
}

void TrapForwarder::takeAddress() {
    const auto address = m_lookup ? m_lookup->address() : std::nullopt;
    if (address) {
        m_lookup.reset();
        open(ManagerAddress::peerName(*address));
    }
}

void TrapForwarder::open(const std::string& peer) {
    try {
        m_snmpManager =
            std::make_unique<SnmpManager>(peer, m_wanted.trapport(), m_wanted.community());
    } catch (const std::runtime_error& error) {
        logFailure(error.what());
    }
}

void TrapForwarder::logFailure(const std::string& reason) const {
    m_logger->log(Hox::Log::here(), spdlog::level::err, "Failed to initialize SNMP Manager: {}",
                  reason);
}

}  // namespace Hox::Capability::StateMonitoring
