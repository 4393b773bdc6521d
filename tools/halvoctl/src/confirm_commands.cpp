#include "confirm_commands.h"

#include <fmt/format.h>

#include <algorithm>
#include <csignal>

#include "clock_text.h"
#include "conf_client.h"
#include "conf_commands.h"
#include "confirm_records.h"
#include "confirm_report.h"
#include "ctl_error.h"
#include "duration.h"
#include "input_text.h"
#include "package_import.h"
#include "printable.h"
#include "report_table.h"
#include "revert_timer.h"
#include "reverter.h"
#include "state_client.h"
#include "table.h"

namespace Hox::Ctl {

namespace {

/// The loss of the terminal ends neither this process nor those that it starts meanwhile.
class HangupIgnored {
public:
    HangupIgnored() : m_former(std::signal(SIGHUP, SIG_IGN)) {}
    ~HangupIgnored() { std::signal(SIGHUP, m_former); }
    HangupIgnored(const HangupIgnored&) = delete;
    HangupIgnored& operator=(const HangupIgnored&) = delete;

private:
    void (*m_former)(int);
};

void refuseUnsaved(const Connection& connection, const std::string& hint) {
    const auto unsaved = unsavedServices(StateClient(connection).latest());
    if (!unsaved.empty()) {
        const auto names = printable(fmt::format("{}", fmt::join(unsaved, ", ")));
        throw CtlError(ExitCode::No, "not sent: unsaved changes of " + names + " would be lost",
                       hint);
    }
}

/// The record of a change, on the disk, whose timer runs.
std::unique_ptr<ConfirmRecord> keepRecord(const Session& session, const Connection& connection,
                                          const std::string& time, PendingKind kind,
                                          const std::string& newPackage) {
    const auto length = parseTimeLimit(time);
    auto record = ConfirmRecord::create(session.surroundings());
    record->keepFormerPackage(ConfClient(connection).exportPackage());
    if (kind == IMPORT) {
        record->keepNewPackage(newPackage);
    }
    Confirmation content;
    content.set_kind(kind);
    content.set_endpoint(connection.endpoint());
    *content.mutable_reverts_at() = timeStamp(session.now() + length);
    keepWithTimer(*record, content, session.surroundings(), length);
    return record;
}

/// As in "Reverts at 18:50:12 unless you run: halvoctl conf confirm 7f3a".
std::string promise(const Session& session, const std::string& what, const Confirmation& content) {
    return fmt::format("{} at {} unless you run: halvoctl conf confirm {}", what,
                       timeText(timeOf(content.reverts_at()), session.now()), content.id());
}

/// Sends the package. A refusal ends the record; after any other failure nobody knows whether the
/// package was imported, so its timer goes on.
void sendForNow(const Session& session, const PackageImport& package, const ConfClient& client,
                ConfirmRecord& record) {
    try {
        package.send(client);
    } catch (const CtlError& error) {
        if (error.code() == ExitCode::Refused) {
            record.remove();
            RevertTimer(record.id(), record.folder()).stop();
            throw;
        }
        throw CtlError(
            error.code(), error.what(),
            "it may have been imported. " + promise(session, "Reverts", record.content()));
    }
}

/// What the service has made of the package is what it is compared with later. It differs from the
/// package in the form of values, so a failure is not one of the import.
void learnResult(const Session& session, const Connection& connection, ConfirmRecord& record) {
    try {
        record.keepNewPackage(ConfClient(connection).exportPackage());
        auto content = record.content();
        for (const auto& service : unsavedServices(StateClient(connection).latest())) {
            content.add_unsaved_elsewhere(service);
        }
        record.keep(content);
    } catch (const CtlError& error) {
        session.note(error.what());
    }
}

PendingState stateOf(const Session& session, const PendingConfirmation& pending) {
    if (!RevertTimer(pending.id, pending.folder).isThere()) {
        return EXPIRED;
    }
    return timeOf(pending.content.reverts_at()) > session.now() ? WAITING : REVERTING;
}

std::string stateText(PendingState state) {
    switch (state) {
        case WAITING:
            return "waiting";
        case REVERTING:
            return "reverting";
        default:
            return "expired";
    }
}

}  // namespace

ExitCode importPackage(Session& session, const ImportWords& words) {
    if (words.time.empty()) {
        return importConf(session, words.path);
    }
    parseTimeLimit(words.time);
    const PackageImport package(readInput(session.surroundings().in, words.path));
    const auto connection = session.connect();
    if (!words.isDiscarding) {
        refuseUnsaved(*connection,
                      "halvoctl conf save keeps them, --discard-unsaved loses them for good");
    }
    const HangupIgnored ignored;
    const auto record = keepRecord(session, *connection, words.time, IMPORT, package.bytes());
    sendForNow(session, package, ConfClient(*connection), *record);
    learnResult(session, *connection, *record);
    ImportedForNow imported;
    imported.set_keys(package.keys());
    imported.set_slices(package.slices());
    imported.set_id(record->id());
    *imported.mutable_reverts_at() = record->content().reverts_at();
    if (session.isJson()) {
        session.print(imported);
    } else {
        session.out() << fmt::format("Imported {} keys in {} slices. {}\n", imported.keys(),
                                     imported.slices(),
                                     promise(session, "Reverts", record->content()));
    }
    return ExitCode::Done;
}

ExitCode guardConf(Session& session, const std::string& time) {
    parseTimeLimit(time);
    const auto connection = session.connect();
    refuseUnsaved(*connection, "halvoctl conf save or halvoctl conf revert first");
    const HangupIgnored ignored;
    const auto record = keepRecord(session, *connection, time, GUARD, "");
    Guarded guarded;
    guarded.set_id(record->id());
    *guarded.mutable_reverts_at() = record->content().reverts_at();
    if (session.isJson()) {
        session.print(guarded);
    } else {
        session.out() << promise(session, "Unsaved changes are discarded", record->content())
                      << '\n';
    }
    return ExitCode::Done;
}

ExitCode confirmChange(Session& session, const std::string& id) {
    const auto record = openPending(session.surroundings(), id);
    const auto content = record->content();
    record->remove();
    RevertTimer(record->id(), record->folder()).stop();
    if (timeOf(content.reverts_at()) <= session.now()) {
        const auto at = session.withEndpoint(content.endpoint());
        ConfirmReport(at, *at.connect()).settle("The " + changeText(content) + " is confirmed");
    }
    return ExitCode::Done;
}

ExitCode showPending(Session& session) {
    PendingChangeList list;
    Table table({"ID", "CHANGE", "STATE", "REVERTS AT", "ENDPOINT"});
    for (const auto& pending : pendingConfirmations(session.surroundings())) {
        auto& change = *list.add_changes();
        change.set_id(pending.id);
        change.set_kind(pending.content.kind());
        change.set_endpoint(pending.content.endpoint());
        *change.mutable_reverts_at() = pending.content.reverts_at();
        change.set_state(stateOf(session, pending));
        const auto kind = changeText(pending.content);
        table.add({pending.id, kind.substr(0, kind.find(' ')), stateText(change.state()),
                   timeText(timeOf(change.reverts_at()), session.now()), change.endpoint()});
    }
    if (session.isJson()) {
        session.print(list);
    } else if (list.changes().empty()) {
        session.out() << "nothing is pending\n";
    } else {
        table.print(session.out(), session.painter());
    }
    const bool isOneExpired =
        std::any_of(list.changes().begin(), list.changes().end(),
                    [](const auto& change) { return change.state() == EXPIRED; });
    return isOneExpired ? ExitCode::No : ExitCode::Done;
}

}  // namespace Hox::Ctl
