#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "command_words.h"
#include "replay_command.h"
#include "watch_command.h"

namespace Hox::Ctl {

namespace {

void addReplay(CLI::App& app, Command& command) {
    auto path = std::make_shared<std::string>();
    auto isFull = std::make_shared<bool>(false);
    auto* const words = app.add_subcommand("replay", "print the changes of a recording");
    words->add_option("FILE", *path, "a file of watch --record")->required();
    words->add_flag("--full", *isFull, "print whole new values, not only the fields that differ");
    words->callback([path, isFull, &command] {
        command = [path, isFull](Session& session) { return replay(session, *path, *isFull); };
    });
}

}  // namespace

void addWatchWords(CLI::App& app, Command& command) {
    auto options = std::make_shared<WatchCommand::Options>();
    auto* const words =
        app.add_subcommand("watch", "print the changes of the keys that match a pattern");
    words
        ->add_option("PATTERN", options->pattern,
                     "* matches one component of a key, ** any number of them at the end")
        ->capture_default_str();
    words->add_option("-n", options->count, "end after so many changes")->type_name("COUNT");
    words->add_option("--for", options->time, "end after this time")->type_name("TIME");
    words->add_flag("--no-snapshot", options->hasNoSnapshot, "leave out what is there at first");
    words
        ->add_option("--service", options->service,
                     "the end of the name of the gRPC service, if several have a tree")
        ->type_name("NAME");
    words->add_flag("--full", options->isFull,
                    "print whole new values, not only the fields that differ");
    words
        ->add_option("--exec", options->exec,
                     "run this command of the shell for each change, with the change as JSON on "
                     "its standard input")
        ->type_name("COMMAND");
    words->add_option("--record", options->record, "record the changes, for replay")
        ->type_name("FILE");
    words->callback([options, &command] {
        command = [options](Session& session) { return WatchCommand(*options).run(session); };
    });
    addReplay(app, command);
}

}  // namespace Hox::Ctl
