#include "machine_identity.h"

#include <sstream>
#include <stdexcept>

#include "assertions_as_errors.h"
#include "ctl_error.h"
#include "hox/system_api/error/serial_number_error.h"
#include "hox/system_api/models.h"
#include "hox/system_api/serial_records.h"

namespace Hox::Ctl {

using SystemAPI::HeadendSWVariant;

bool operator==(const MachineIdentity& left, const MachineIdentity& right) {
    return left.variant == right.variant && left.partNumber == right.partNumber;
}

std::string identityText(const MachineIdentity& identity) {
    return std::string(nameOf(identity.variant)) + " part " + std::to_string(identity.partNumber);
}

std::string identityText(const std::optional<MachineIdentity>& identity) {
    return identity ? identityText(*identity) : "a machine that cannot be read";
}

std::string machinesText(const std::optional<MachineIdentity>& madeFor,
                         const MachineIdentity& machine) {
    return "made for " + identityText(madeFor) + "; this machine is " + identityText(machine);
}

std::optional<MachineIdentity> identityOf(const Package& package) {
    const auto folders = package.folders();
    if (folders.count(packageVariant) > 0 || folders.count(packagePartNumber) > 0) {
        return std::nullopt;
    }
    MachineIdentity identity;
    if (const auto* const text = package.file(packageVariant)) {
        std::istringstream stream(*text);
        identity.variant = SystemAPI::deSerialize(stream);
    }
    const auto* const number = package.file(packagePartNumber);
    if (number == nullptr || number->empty()) {
        return identity;
    }
    try {
        identity.partNumber =
            static_cast<std::uint32_t>(std::stoi(number->substr(0, number->find('\n'))));
    } catch (const std::logic_error&) {
        return std::nullopt;
    }
    return identity;
}

MachineIdentity exporterOf(const Package& package) {
    auto identity = identityOf(package);
    if (!identity) {
        throw CtlError(ExitCode::Usage, "the endpoint's identity cannot be read");
    }
    const auto* const variant = package.file(packageVariant);
    if (variant != nullptr && variant->empty()) {
        identity->variant = HeadendSWVariant::UNKNOWN;
    }
    return *identity;
}

MachineIdentity identityOfMachine(const std::string& root) {
    const AssertionsAsErrors errors;
    MachineIdentity identity;
    identity.variant = SystemAPI::deSerialize(std::filesystem::path(root + "/etc/sw_variant"));
    const auto serial = root + "/etc/serial";
    try {
        static_cast<void>(SystemAPI::readSerialRecords(serial));
    } catch (const SystemAPI::SerialNumberError&) {
        return identity;  // like the service: the part number is not known
    } catch (const std::logic_error&) {
        throw CtlError(ExitCode::No,
                       serial + " has a text where a number must be, which ends the service");
    }
    if (const auto model = SystemAPI::findModel(serial)) {
        identity.partNumber = static_cast<std::uint32_t>(model->partNumber);
    }
    return identity;
}

}  // namespace Hox::Ctl
