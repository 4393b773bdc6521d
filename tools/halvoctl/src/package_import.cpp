#include "package_import.h"

#include <fmt/format.h>

#include <utility>

#include "call_error.h"
#include "ctl_error.h"
#include "machine_identity.h"

namespace Hox::Ctl {

namespace {

std::optional<Package> tryRead(const std::string& bytes) {
    try {
        return Package(bytes);
    } catch (const CtlError&) {
        return std::nullopt;
    }
}

/// Why the service may have refused the package; empty if the tool does not know.
std::string identityHint(const ConfClient& client, const Package& package) {
    const auto madeFor = identityOf(package);
    try {
        const auto machine = exporterOf(Package(client.exportPackage()));
        return madeFor && *madeFor == machine ? "" : machinesText(madeFor, machine);
    } catch (const CtlError&) {
        return "made for " + identityText(madeFor);
    }
}

}  // namespace

PackageImport::PackageImport(std::string bytes)
    : m_bytes(std::move(bytes)), m_package(tryRead(m_bytes)) {
    if (m_bytes.empty() || (m_package && m_package->slices().empty())) {
        throw CtlError(ExitCode::Usage, "not sent: the package has no configuration",
                       "halvoctl conf clear removes the whole configuration");
    }
}

void PackageImport::send(const ConfClient& client) const {
    try {
        client.importPackage(m_bytes);
    } catch (const CallError& error) {
        if (error.statusCode() != grpc::StatusCode::INVALID_ARGUMENT || !m_package) {
            throw;
        }
        const auto hint = identityHint(client, *m_package);
        if (hint.empty()) {
            throw;
        }
        throw error.withHint(hint);
    }
}

std::uint32_t PackageImport::keys() const {
    return m_package ? static_cast<std::uint32_t>(m_package->keyCount()) : 0;
}

std::uint32_t PackageImport::slices() const {
    return m_package ? static_cast<std::uint32_t>(m_package->slices().size()) : 0;
}

std::string PackageImport::doneText() const {
    return fmt::format("Imported {} key{} in {} slice{}.", keys(), keys() == 1 ? "" : "s", slices(),
                       slices() == 1 ? "" : "s");
}

}  // namespace Hox::Ctl
