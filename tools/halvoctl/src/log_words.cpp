#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "command_words.h"
#include "log_commands.h"

namespace Hox::Ctl {

namespace {

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
    auto level = std::make_shared<std::string>();
    auto* const list = log->add_subcommand("ls", "list the loggers with their levels");
    list->add_option("GLOB", *pattern, "a pattern as in a shell")->capture_default_str();
    list->callback([pattern, &command] {
        command = [pattern](Session& session) { return listLoggers(session, *pattern); };
    });
    auto* const set = log->add_subcommand("set", "set the level of loggers until the service ends");
    set->add_option("GLOB", *pattern, "a pattern as in a shell")->required();
    set->add_option("LEVEL", *level, "the least severe records that are logged")
        ->required()
        ->check(CLI::IsMember(logLevelNames()));
    set->callback([pattern, level, &command] {
        command = [pattern, level](Session& session) {
            return setLogLevel(session, *pattern, *level);
        };
    });
    addTail(*log, command);
}

}  // namespace Hox::Ctl
