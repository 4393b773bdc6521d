#include "package_verdict.h"

#include <filesystem>
#include <system_error>

#include "finding_list.h"
#include "hox/configuration/package_rules.h"
#include "package.h"

namespace Hox::Ctl {

namespace Configuration = Hox::Capability::Configuration;

namespace {

void refuse(Verdict& verdict, const std::string& code, const std::string& reason) {
    verdict.set_code(code);
    verdict.set_reason(reason);
}

/// Refuses the package for the first finding with this status; false if there is none.
bool refuseByFinding(const FindingList& list, const std::string& code, Verdict& verdict) {
    for (const auto& finding : list.findings()) {
        if (finding.refused_as() == code) {
            refuse(verdict, code,
                   (finding.where().empty() ? "" : finding.where() + ": ") + finding.text());
            return true;
        }
    }
    return false;
}

}  // namespace

Verdict verdictOf(const std::string& archive, const MachineIdentity& machine, bool isOverridden) {
    Verdict verdict;
    verdict.set_machine(identityText(machine));
    const auto findings = findingsIn(archive);
    if (refuseByFinding(findings, "RESOURCE_EXHAUSTED", verdict) ||
        refuseByFinding(findings, "INTERNAL", verdict)) {
        return verdict;
    }
    const auto identity = identityOf(Package(archive));
    verdict.set_made_for(identityText(identity));
    const bool isLike = identity && *identity == machine;
    // One that cannot be read is among the findings.
    if (identity && !isLike && !isOverridden) {
        refuse(verdict, "INVALID_ARGUMENT", machinesText(identity, machine));
        return verdict;
    }
    if (refuseByFinding(findings, "FAILED_PRECONDITION", verdict)) {
        return verdict;
    }
    verdict.set_is_accepted(true);
    verdict.set_reason(isLike ? "made for " + verdict.made_for() + ", like this machine"
                              : machinesText(identity, machine) + ", but " +
                                    Configuration::overrideMarker + " is there");
    return verdict;
}

bool hasOverrideMarker(const std::string& root) {
    std::error_code error;
    return std::filesystem::exists(root + Configuration::overrideMarker, error);
}

}  // namespace Hox::Ctl
