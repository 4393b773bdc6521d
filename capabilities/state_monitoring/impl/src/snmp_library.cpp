#include <net-snmp/net-snmp-config.h>
// The configuration comes first.
#include <net-snmp/net-snmp-includes.h>

#include <filesystem>
#include <string>
#include <system_error>

#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"
#include "snmp_library.h"

namespace Hox::Capability::StateMonitoring {

namespace {

int passToLog(int /*majorId*/, int /*minorId*/, void* message, void* /*userData*/) {
    std::string text = static_cast<const snmp_log_message*>(message)->msg;
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    Hox::Log::getLogsystem()
        ->getLogger("SnmpManager")
        ->log(Hox::Log::here(), spdlog::level::debug, "{}", text);
    return 0;
}

std::string ownMibFolder() {
    std::error_code error;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
    return (program.parent_path().parent_path() / "share/snmp/mibs").string();
}

}  // namespace

void initSnmpLibrary() {
    static const bool isInitialised = [] {
        netsnmp_register_loghandler(NETSNMP_LOGHANDLER_CALLBACK, LOG_DEBUG);
        snmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, passToLog, nullptr);
        // Nothing of the library has to outlive the process.
        netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
        init_snmp("snmpapp");
        // Read now: later there may be no descriptor left for it.
        add_mibdir(ownMibFolder().c_str());
        netsnmp_read_module("HALVO-QHED-MIB");
        return true;
    }();
    static_cast<void>(isInitialised);
}

}  // namespace Hox::Capability::StateMonitoring
