#include <CLI/CLI.hpp>
#include <limits>
#include <memory>
#include <string>

#include "command_words.h"
#include "report_list_command.h"
#include "severity.h"
#include "state_commands.h"

namespace Hox::Ctl {

namespace {

CLI::Validator isSeverity() {
    return CLI::IsMember(severityNames(), CLI::ignore_case);
}

void addList(CLI::App& state, Command& command) {
    auto options = std::make_shared<ReportListCommand::Options>();
    auto* const words = state.add_subcommand("list", "print archived reports, the oldest first");
    words->add_option("--severity", options->severity, "at least as severe as this")
        ->check(isSeverity());
    words->add_option("--type", options->type, "a regular expression that is found in the type")
        ->type_name("REGEX");
    words->add_option("--service", options->service, "from this service")->type_name("ID");
    words->add_option("--last", options->last, "so many of them, the newest")
        ->check(CLI::Range(1, std::numeric_limits<int>::max()))
        ->type_name("COUNT");
    words->add_option("--since", options->since, "not older than this")->type_name("TIME");
    words->callback([options, &command] {
        command = [options](Session& session) { return ReportListCommand(*options).run(session); };
    });
}

void addReport(CLI::App& state, Command& command) {
    auto report = std::make_shared<ReportWords>();
    auto* const words = state.add_subcommand("report", "store a report with the time of now");
    words->add_option("ORIGIN", report->origin, "SERVICE/TYPE/SOURCE")->required();
    words->add_option("SEVERITY", report->severity, "how bad it is")
        ->required()
        ->check(isSeverity());
    words->add_option("TEXT", report->text, "what has happened");
    words->add_option("--info", report->info, "more detail")->type_name("TEXT");
    words->callback([report, &command] {
        command = [report](Session& session) { return Ctl::report(session, *report); };
    });
}

void addOk(CLI::App& state, Command& command) {
    auto report = std::make_shared<ReportWords>();
    auto* const words =
        state.add_subcommand("ok", "report OK for an origin that has reported before");
    words->add_option("ORIGIN", report->origin, "SERVICE/TYPE/SOURCE")->required();
    words->add_option("TEXT", report->text, "what has happened");
    words->callback([report, &command] {
        command = [report](Session& session) { return reportOk(session, *report); };
    });
}

}  // namespace

void addStateWords(CLI::App& app, Command& command) {
    auto failOn = std::make_shared<std::string>();
    auto* const state =
        app.add_subcommand("state", "print the severity and the reports that decide it");
    state->require_subcommand(0, 1);
    state->add_option("--fail-on", *failOn, "exit status 4 if it is at least as severe as this")
        ->check(isSeverity());
    addList(*state, command);
    addReport(*state, command);
    addOk(*state, command);
    state->callback([state, failOn, &command] {
        if (state->get_subcommands().empty()) {
            command = [failOn](Session& session) { return showState(session, *failOn); };
        }
    });
}

}  // namespace Hox::Ctl
