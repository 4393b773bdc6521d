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

const char* const overrideMarker = "/tmp/headend_override_compat_check";

namespace {

const char* nameOf(HeadendSWVariant variant) {
    switch (variant) {
        case HeadendSWVariant::QAM:
            return "QAM";
        case HeadendSWVariant::COFDM:
            return "COFDM";
        case HeadendSWVariant::UNKNOWN:
            break;
    }
    return "UNKNOWN";
}

}  // namespace

bool operator==(const MachineIdentity& left, const MachineIdentity& right) {
    return left.variant == right.variant && left.partNumber == right.partNumber;
}

std::string identityText(const MachineIdentity& identity) {
    return std::string(nameOf(identity.variant)) + " part " + std::to_string(identity.partNumber);
}

MachineIdentity identityOf(const Package& package) {
    MachineIdentity identity;
    if (const auto* const text = package.file("swvariant")) {
        std::istringstream stream(*text);
        identity.variant = SystemAPI::deSerialize(stream);
    }
    if (const auto* const text = package.file("partno"); text != nullptr && !text->empty()) {
        identity.partNumber =
            static_cast<std::uint32_t>(std::stoi(text->substr(0, text->find('\n'))));
    }
    return identity;
}

MachineIdentity exporterOf(const Package& package) {
    auto identity = identityOf(package);
    const auto* const variant = package.file("swvariant");
    if (variant != nullptr && variant->empty()) {
        identity.variant = HeadendSWVariant::UNKNOWN;
    }
    return identity;
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
