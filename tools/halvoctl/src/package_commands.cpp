#include "package_commands.h"

#include <fmt/format.h>

#include "conf_client.h"
#include "ctl_error.h"
#include "finding_list.h"
#include "input_text.h"
#include "package.h"
#include "package_difference.h"
#include "package_verdict.h"
#include "printable.h"
#include "saved_value.h"
#include "table.h"

namespace Hox::Ctl {

namespace {

std::string bytesAt(const Session& session, const PackagePlace& place) {
    if (place != "@") {
        return readInput(session.surroundings().in, place);
    }
    const auto connection = session.connect();
    return ConfClient(*connection).exportPackage();
}

Package packageAt(const Session& session, const PackagePlace& place) {
    return Package(bytesAt(session, place));
}

std::string identityTextOf(const Package& package) {
    return identityText(identityOf(package));
}

void printChange(const Session& session, const KeyChange& change) {
    const bool isAdded = !change.has_old_value();
    const bool isRemoved = !change.has_new_value();
    const auto color = isAdded     ? Painter::Color::Green
                       : isRemoved ? Painter::Color::Red
                                   : Painter::Color::Yellow;
    session.out() << session.painter().paint(color, isAdded     ? "+"
                                                    : isRemoved ? "-"
                                                                : "~")
                  << ' ' << printable(change.key()) << ": ";
}

}  // namespace

ExitCode listKeys(Session& session, const PackagePlace& place, bool isLong) {
    const auto package = packageAt(session, place);
    if (session.isJson()) {
        PackageContent content;
        content.set_identity(identityTextOf(package));
        for (const auto& [key, text] : package.values()) {
            auto& entry = *content.add_keys();
            entry.set_key(printable(key));
            entry.set_bytes(text.size());
            *entry.mutable_value() = jsonValue(text);
        }
        session.print(content);
        return ExitCode::Done;
    }
    Table table({"BYTES", "KEY", "VALUE"});
    for (const auto& [key, text] : package.values()) {
        if (isLong) {
            table.add({std::to_string(text.size()), key, shownValue(text)});
        } else {
            session.out() << printable(key) << '\n';
        }
    }
    table.print(session.out(), session.painter());
    return ExitCode::Done;
}

ExitCode printKey(Session& session, const std::string& key, const PackagePlace& place) {
    const auto package = packageAt(session, place);
    const auto found = package.values().find(key);
    if (found == package.values().end()) {
        throw CtlError(ExitCode::No, "the package has no key \"" + printable(key) + "\"",
                       "halvoctl conf ls lists all keys");
    }
    if (session.isJson()) {
        PackageKey entry;
        entry.set_key(printable(key));
        entry.set_bytes(found->second.size());
        *entry.mutable_value() = jsonValue(found->second);
        session.print(entry);
    } else {
        const auto text = plainValue(found->second);
        session.out() << (session.surroundings().isOutTerminal ? printable(text) : text) << '\n';
    }
    return ExitCode::Done;
}

ExitCode comparePackages(Session& session, const PackagePlace& before, const PackagePlace& after) {
    const auto first = packageAt(session, before);
    const auto second = packageAt(session, after);
    if (identityTextOf(first) != identityTextOf(second)) {
        session.note("the packages are for different machines: " + identityTextOf(first) + " and " +
                     identityTextOf(second));
    }
    auto difference = differenceOf(first, second);
    const auto code = difference.changes().empty() ? ExitCode::Done : ExitCode::No;
    if (session.isJson()) {
        for (auto& change : *difference.mutable_changes()) {
            change.set_key(printable(change.key()));
        }
        session.print(difference);
        return code;
    }
    for (const auto& change : difference.changes()) {
        printChange(session, change);
        if (change.has_old_value()) {
            session.out() << shownValue(first.values().at(change.key()));
        }
        if (change.has_old_value() && change.has_new_value()) {
            session.out() << " -> ";
        }
        if (change.has_new_value()) {
            session.out() << shownValue(second.values().at(change.key()));
        }
        session.out() << '\n';
    }
    session.out() << fmt::format("{} changed, {} added, {} removed (state ids left out)\n",
                                 difference.changed(), difference.added(), difference.removed());
    return code;
}

ExitCode lintPackage(Session& session, const PackagePlace& place) {
    const auto list = findingsIn(bytesAt(session, place));
    if (session.isJson()) {
        session.print(list);
    } else {
        for (const auto& finding : list.findings()) {
            session.out() << (finding.where().empty() ? "" : finding.where() + ": ")
                          << finding.text() << (finding.refused_as().empty() ? "" : " (refused)")
                          << '\n';
        }
        const auto count = list.findings_size();
        session.out() << fmt::format("{} finding{}; {} of {} bytes by the estimate for an export\n",
                                     count, count == 1 ? "" : "s", list.estimate(), list.limit());
    }
    return list.findings().empty() ? ExitCode::Done : ExitCode::No;
}

ExitCode verifyPackage(Session& session, const PackagePlace& place, bool isHere) {
    const auto archive = bytesAt(session, place);
    const auto verdict = isHere ? verdictOf(archive, identityOfMachine(""), hasOverrideMarker(""))
                                : verdictOf(archive, exporterOf(packageAt(session, "@")), false);
    if (session.isJson()) {
        session.print(verdict);
    } else {
        session.out() << (verdict.is_accepted() ? "accepted: " : "refused: ")
                      << (verdict.code().empty() ? "" : verdict.code() + ": ") << verdict.reason()
                      << '\n';
    }
    return verdict.is_accepted() ? ExitCode::Done : ExitCode::No;
}

}  // namespace Hox::Ctl
