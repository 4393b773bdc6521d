#include <net-snmp/net-snmp-config.h>
// The configuration comes first.
#include <net-snmp/net-snmp-includes.h>

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <stdexcept>
#include <utility>

#include "hox/cpputil/assertion/assertion.h"
#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"
#include "snmp_library.h"
#include "snmp_manager.h"

namespace Hox::Capability::StateMonitoring {

namespace {

constexpr oid sysUpTime[] = {1, 3, 6, 1, 2, 1, 1, 3, 0};
constexpr oid snmpTrapOid[] = {1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0};
constexpr oid enterprise[] = {1, 3, 6, 1, 4, 1, HALVO_ENTERPRISE_NUMBER};
constexpr std::size_t longestCommunity = COMMUNITY_MAX_LEN;
constexpr unsigned long highestPort = 65535;

template <std::size_t Size>
int addVariable(snmp_pdu& pdu, const oid (&name)[Size], char type, const std::string& value) {
    return snmp_add_var(&pdu, name, Size, type, value.c_str());
}

/// The library would look a port that is no number up as a part of the host's name.
bool isPort(const std::string& text) {
    const bool isNumber = !text.empty() && text.size() <= 5 &&
                          std::all_of(text.begin(), text.end(),
                                      [](char digit) { return digit >= '0' && digit <= '9'; });
    return isNumber && std::stoul(text) > 0 && std::stoul(text) <= highestPort;
}

}  // namespace

SnmpManager::SnmpManager(const std::string& managerIp, const std::string& trapPort,
                         std::string community)
    : m_logger(Hox::Log::getLogsystem()->getLogger("SnmpManager")),
      m_peerName(fmt::format("{}:{}", managerIp, trapPort)),
      m_community(std::move(community)) {
    initSnmpLibrary();
    netsnmp_session session;
    snmp_sess_init(&session);
    session.version = SNMP_VERSION_2c;
    session.peername = m_peerName.data();
    session.community = reinterpret_cast<unsigned char*>(m_community.data());
    session.community_len = m_community.size();
    if (!managerIp.empty() && isPort(trapPort) && !m_community.empty() &&
        m_community.size() <= longestCommunity) {
        m_session = snmp_open(&session);
    }
    if (m_session == nullptr) {
        throw std::runtime_error(notOpenedText);
    }
}

SnmpManager::~SnmpManager() {
    snmp_close(m_session);
}

void SnmpManager::PduDeleter::operator()(snmp_pdu* pdu) const {
    snmp_free_pdu(pdu);
}

void SnmpManager::sendTrap(const SnmpEvent& event) {
    Pdu pdu(snmp_pdu_create(SNMP_MSG_TRAP2));
    HOX_ASSERT(pdu);
    int rc = addVariable(*pdu, sysUpTime, 't', fmt::format("{}", get_uptime()));
    HOX_ASSERT(rc == 0);
    rc = addVariable(*pdu, snmpTrapOid, 'o', event.trapName);
    HOX_ASSERT_MSG(rc == 0, "Failed to add oid. Is the trapname present in the MIB?");
    setEnterprise(*pdu);
    addEvent(*pdu, event);
    if (snmp_send(m_session, pdu.get()) != 0) {
        static_cast<void>(pdu.release());  // the library has freed it
    } else {
        m_logger->log(Hox::Log::here(), spdlog::level::err, "Failed to send the trap {} to {}: {}",
                      event.trapName, m_peerName, lastError());
    }
}

void SnmpManager::setEnterprise(snmp_pdu& pdu) {
    // The library frees it.
    pdu.enterprise = snmp_duplicate_objid(enterprise, std::size(enterprise));
    HOX_ASSERT(pdu.enterprise);
    pdu.enterprise_length = std::size(enterprise);
}

void SnmpManager::addEvent(snmp_pdu& pdu, const SnmpEvent& event) {
    oid name[std::size(enterprise) + 5];
    std::copy(std::begin(enterprise), std::end(enterprise), name);
    constexpr oid variables[] = {3, 1, 10, 2, 1};
    std::copy(std::begin(variables), std::end(variables), name + std::size(enterprise));
    oid& number = name[std::size(name) - 1];
    int rc = addVariable(pdu, name, 'i', fmt::format("{}", event.severity));
    HOX_ASSERT(rc == 0);
    number = 2;
    rc = addVariable(pdu, name, 's', event.source);
    HOX_ASSERT(rc == 0);
    number = 3;
    rc = addVariable(pdu, name, 's', event.msg);
    HOX_ASSERT(rc == 0);
}

std::string SnmpManager::lastError() {
    int systemError = 0;
    int snmpError = 0;
    char* text = nullptr;
    snmp_error(m_session, &systemError, &snmpError, &text);
    const std::unique_ptr<char, decltype(&std::free)> owner(text, &std::free);
    return text == nullptr ? "" : text;
}

}  // namespace Hox::Capability::StateMonitoring
