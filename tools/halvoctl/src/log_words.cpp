#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "command_words.h"
#include "log_commands.h"
#include "log_level_command.h"
#include "logger_client.h"

namespace Hox::Ctl {

namespace {

void addSet(CLI::App& log, Command& command) {
    auto options = std::make_shared<LogLevelCommand::Options>();
    auto* const words = log.add_subcommand(
        "set", "set the level of loggers until the service ends, or for some time");
    words->add_option("GLOB", options->pattern, "a pattern as in a shell")->required();
    words->add_option("LEVEL", options->level, "the least severe records that are logged")
        ->required()
        ->check(CLI::IsMember(logLevelNames()));
    words->add_option("--for", options->time, "put the levels of before back after this time")
        ->type_name("TIME");
    words->callback([options, &command] {
        command = [options](Session& session) { return LogLevelCommand(*options).run(session); };
    });
}

void addTail(CLI::App& log, Command& command) {
    auto tail = std::make_shared<TailWords>();
    auto* const words = log.add_subcommand("tail", "print the end of a log on this machine");
    words->add_flag("-f,--follow", tail->isFollowing, "go on, also after a rotation");
    words->add_option("-n", tail->count, "how many of the last lines")
        ->type_name("COUNT")
        ->capture_default_str();
    words->add_option("FILE", tail->path, "the log")->capture_default_str();
    words->callback([tail, &command] {
        command = [tail](Session& session) { return tailLog(session, *tail); };
    });
}

}  // namespace

void addLogWords(CLI::App& app, Command& command) {
    auto* const log =
        app.add_subcommand("log", "the loggers, their levels and the log of this machine");
    log->require_subcommand(1);
    auto pattern = std::make_shared<std::string>("*");
    auto* const list = log->add_subcommand("ls", "list the loggers with their levels");
    list->add_option("GLOB", *pattern, "a pattern as in a shell")->capture_default_str();
    list->callback([pattern, &command] {
        command = [pattern](Session& session) { return listLoggers(session, *pattern); };
    });
    addSet(*log, command);
    addTail(*log, command);
}

}  // namespace Hox::Ctl
