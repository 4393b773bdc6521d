#include "conf_commands.h"

#include <algorithm>

#include "ask_first.h"
#include "call_error.h"
#include "changed_slices.h"
#include "clock_text.h"
#include "conf_client.h"
#include "ctl_error.h"
#include "input_text.h"
#include "output.pb.h"
#include "output_file.h"
#include "package.h"
#include "package_import.h"
#include "printable.h"
#include "report_table.h"
#include "saving_status.h"

namespace Hox::Ctl {

namespace {

/// A package without the changes of today surprises its owner. Silent if the service does not say.
void noteUnsaved(const Session& session, const Connection& connection) {
    try {
        if (!isAllSaved(savingStatus(connection))) {
            session.note("the package is without the unsaved changes");
        }
    } catch (const CtlError& error) {
        if (error.code() == ExitCode::Interrupted) {
            throw;
        }
    }
}

}  // namespace

ExitCode showSaving(Session& session, const std::optional<std::string>& log) {
    const auto connection = session.connect();
    auto list = savingStatus(*connection);
    if (log) {
        for (const auto& slice : changedSlices(linesOfLog(*log))) {
            list.add_slices_in_log(printable(slice));
        }
    }
    const auto code = isAllSaved(list) ? ExitCode::Done : ExitCode::No;
    if (session.isJson()) {
        session.print(list);
        return code;
    }
    for (const auto& status : list.services()) {
        session.out() << printable(status.service_id()) << ": "
                      << (status.is_saved() ? "saved" : "unsaved") << " since "
                      << sinceText(timeOf(status.since()), session.now()) << '\n';
    }
    if (list.services().empty()) {
        session.out() << "saved: nothing has been changed since the start\n";
    }
    for (const auto& slice : list.slices_in_log()) {
        session.out() << "  " << slice << '\n';
    }
    return code;
}

ExitCode saveConf(Session& session) {
    ConfClient(*session.connect()).save();
    return ExitCode::Done;
}

ExitCode revertConf(Session& session, bool isSure) {
    const auto connection = session.connect();
    askFirst(session, isSure, "Discard all unsaved changes");
    ConfClient(*connection).revert();
    return ExitCode::Done;
}

ExitCode clearConf(Session& session, bool isSure) {
    const auto connection = session.connect();
    askFirst(session, isSure, "Remove the whole configuration, also the saved one,");
    ConfClient(*connection).clear();
    return ExitCode::Done;
}

ExitCode exportConf(Session& session, const std::string& path) {
    if (path == "-" && session.surroundings().isOutTerminal) {
        throw CtlError(ExitCode::Usage, "a package is not for a terminal",
                       "name a file, or send the output to one");
    }
    const auto connection = session.connect();
    const auto package = ConfClient(*connection).exportPackage();
    if (Package(package).entries().empty()) {  // a good file must not be lost for it
        throw CtlError(ExitCode::Usage, "the endpoint's package is empty");
    }
    if (path == "-") {
        session.out() << package;
    } else {
        writeWholeFile(path, package);
    }
    noteUnsaved(session, *connection);
    return ExitCode::Done;
}

ExitCode importConf(Session& session, const std::string& path) {
    const PackageImport package(readInput(session.surroundings().in, path));
    const auto connection = session.connect();
    package.send(ConfClient(*connection));
    Imported imported;
    imported.set_keys(package.keys());
    imported.set_slices(package.slices());
    if (session.isJson()) {
        session.print(imported);
    } else {
        session.out() << package.doneText() << '\n';
    }
    return ExitCode::Done;
}

}  // namespace Hox::Ctl
