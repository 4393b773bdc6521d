#include "confirm_commands.h"

#include <fmt/format.h>

#include <algorithm>
#include <vector>

#include "call_error.h"
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

using Reports = std::vector<StateClient::Stored>;

void refuseUnsaved(const Reports& latest, const std::string& hint) {
    const auto unsaved = unsavedServices(latest);
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
    const auto hint = [&] {
        return "it may have been imported. " + promise(session, "Reverts", record.content());
    };
    try {
        package.send(client);
    } catch (const CallError& error) {
        if (error.isOutcomeOpen()) {
            throw CtlError(ExitCode::Unreachable, error.what(), hint());
        }
        record.remove();
        RevertTimer(record.id(), record.folder()).stop();
        throw;
    } catch (const CtlError& error) {
        throw CtlError(error.code(), error.what(), hint());
    }
}

/// Finds out which services have unsaved changes that the import has not touched, so that they do
/// not matter for its end: their reports of before are still the latest ones. A failure is not one
/// of the import, except for the end that the user wants.
void learnElsewhere(const Session& session, const Connection& connection, const Reports& before,
                    ConfirmRecord& record) {
    if (unsavedServices(before).empty()) {
        return;
    }
    try {
        auto content = record.content();
        for (const auto& service : unsavedInBoth(before, StateClient(connection).latest())) {
            content.add_unsaved_elsewhere(service);
        }
        record.keep(content);
    } catch (const CtlError& error) {
        if (error.code() == ExitCode::Interrupted) {
            throw CtlError(
                error.code(), error.what(),
                "it has been imported. " + promise(session, "Reverts", record.content()));
        }
        session.note(error.what());
    }
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
    const auto before = StateClient(*connection).latest();
    if (!words.isDiscarding) {
        refuseUnsaved(before,
                      "halvoctl conf save keeps them, --discard-unsaved loses them for good");
    }
    const auto record = keepRecord(session, *connection, words.time, IMPORT, package.bytes());
    sendForNow(session, package, ConfClient(*connection), *record);
    learnElsewhere(session, *connection, before, *record);
    ImportedForNow imported;
    imported.set_keys(package.keys());
    imported.set_slices(package.slices());
    imported.set_id(record->id());
    *imported.mutable_reverts_at() = record->content().reverts_at();
    if (session.isJson()) {
        session.print(imported);
    } else {
        session.out() << package.doneText() << ' ' << promise(session, "Reverts", record->content())
                      << '\n';
    }
    return ExitCode::Done;
}

ExitCode guardConf(Session& session, const std::string& time) {
    parseTimeLimit(time);
    const auto connection = session.connect();
    refuseUnsaved(StateClient(*connection).latest(),
                  "halvoctl conf save or halvoctl conf revert first");
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
    const auto record = openPending(session.surroundings(), id, session.options().timeout);
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
        change.set_state(pendingStateOf(pending, session.now()));
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
