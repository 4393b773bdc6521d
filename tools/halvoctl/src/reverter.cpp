#include "reverter.h"

#include <algorithm>

#include "conf_client.h"
#include "log_level_command.h"
#include "package.h"
#include "state_client.h"

namespace Hox::Ctl {

Reverter::Finding Reverter::examine() const {
    switch (m_record.content().kind()) {
        case IMPORT:
            return examineImport();
        case GUARD:
            return examineGuard();
        default:
            return {};
    }
}

Reverter::Finding Reverter::examineImport() const {
    const Package saved(ConfClient(m_connection).exportPackage());
    const auto& elsewhere = m_record.content().unsaved_elsewhere();
    for (const auto& service : unsavedServices(StateClient(m_connection).latest())) {
        if (std::find(elsewhere.begin(), elsewhere.end(), service) == elsewhere.end()) {
            return {false, "there are unsaved changes"};
        }
    }
    if (saved.hasSameValues(Package(m_record.newPackage()))) {
        return {};
    }
    if (saved.hasSameValues(Package(m_record.formerPackage()))) {
        return {true, ""};
    }
    return {false, "the saved configuration has been changed since"};
}

Reverter::Finding Reverter::examineGuard() const {
    const Package saved(ConfClient(m_connection).exportPackage());
    if (saved.hasSameValues(Package(m_record.formerPackage()))) {
        return {};
    }
    return {false, "the saved configuration has been changed since"};
}

void Reverter::revert() const {
    switch (m_record.content().kind()) {
        case IMPORT:
            ConfClient(m_connection).importPackage(m_record.formerPackage());
            break;
        case GUARD:
            if (examineGuard().objection.empty()) {
                ConfClient(m_connection).revert();
            } else {
                ConfClient(m_connection).importPackage(m_record.formerPackage());
            }
            break;
        default:
            putLevelsBack(LoggerClient(m_connection), m_record.content().loggers());
    }
}

std::string changeText(const Confirmation& content) {
    const std::string kind = content.kind() == IMPORT  ? "import"
                             : content.kind() == GUARD ? "guard"
                                                       : "log";
    return kind + " " + content.id();
}

}  // namespace Hox::Ctl
