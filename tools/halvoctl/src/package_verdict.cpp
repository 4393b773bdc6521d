#include "package_verdict.h"

#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "finding_list.h"
#include "printable.h"

namespace Hox::Ctl {

namespace {

/// Takes the first finding for which a service refuses the package with this status.
bool isRefused(const FindingList& list, const std::string& code, Verdict& verdict) {
    for (const auto& finding : list.findings()) {
        if (finding.refused_as() == code) {
            verdict.set_code(code);
            verdict.set_reason((finding.where().empty() ? "" : finding.where() + ": ") +
                               finding.text());
            return true;
        }
    }
    return false;
}

void refuse(Verdict& verdict, const std::string& code, const std::string& reason) {
    verdict.set_code(code);
    verdict.set_reason(reason);
}

}  // namespace

Verdict verdictOf(const Package& package, const MachineIdentity& machine, bool isOverridden) {
    Verdict verdict;
    verdict.set_made_for(printable(package.identity()));
    verdict.set_machine(identityText(machine));
    const auto findings = findingsIn(package);
    if (isRefused(findings, "INTERNAL", verdict)) {
        return verdict;
    }
    MachineIdentity identity;
    try {
        identity = identityOf(package);
    } catch (const std::logic_error&) {
        refuse(verdict, "FAILED_PRECONDITION", "partno: the part number is not a number");
        return verdict;
    }
    verdict.set_made_for(identityText(identity));
    if (!(identity == machine) && !isOverridden) {
        refuse(verdict, "INVALID_ARGUMENT",
               "made for " + verdict.made_for() + "; this machine is " + verdict.machine());
        return verdict;
    }
    if (isRefused(findings, "FAILED_PRECONDITION", verdict)) {
        return verdict;
    }
    verdict.set_is_accepted(true);
    verdict.set_reason("made for " + verdict.made_for() +
                       (identity == machine ? ", like this machine"
                                            : "; this machine is " + verdict.machine() + ", but " +
                                                  overrideMarker + " is there"));
    return verdict;
}

bool hasOverrideMarker(const std::string& root) {
    std::error_code error;
    return std::filesystem::exists(root + overrideMarker, error);
}

}  // namespace Hox::Ctl
