#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "command_words.h"
#include "confirm_commands.h"
#include "rollback_command.h"

namespace Hox::Ctl {

namespace {

void addImport(CLI::App& conf, Command& command) {
    auto import = std::make_shared<ImportWords>();
    auto* const words =
        conf.add_subcommand("import", "replace the whole configuration by a package");
    words->add_option("FILE", import->path, "the package, - for the input")->required();
    auto* const time = words->add_option(
        "--confirm", import->time, "revert after this time unless conf confirm is run until then");
    time->type_name("TIME");
    words
        ->add_flag("--discard-unsaved", import->isDiscarding,
                   "with --confirm: although there are unsaved changes, which are lost")
        ->needs(time);
    words->callback([import, &command] {
        command = [import](Session& session) { return importPackage(session, *import); };
    });
}

void addGuard(CLI::App& conf, Command& command) {
    auto time = std::make_shared<std::string>();
    auto* const words = conf.add_subcommand(
        "guard", "discard unsaved changes after some time unless conf confirm is run until then");
    words->add_option("--timeout", *time, "the time")->required()->type_name("TIME");
    words->callback([time, &command] {
        command = [time](Session& session) { return guardConf(session, *time); };
    });
}

void addConfirm(CLI::App& conf, Command& command) {
    auto id = std::make_shared<std::string>();
    auto* const words = conf.add_subcommand("confirm", "keep a change that would revert");
    words->add_option("ID", *id, "the change, if there are several");
    words->callback([id, &command] {
        command = [id](Session& session) { return confirmChange(session, *id); };
    });
}

void addRollback(CLI::App& conf, Command& command) {
    auto options = std::make_shared<RollbackCommand::Options>();
    auto* const words =
        conf.add_subcommand("rollback", "revert a change before its time or after it");
    auto* const id = words->add_option("ID", options->id, "the change, if there are several");
    words->add_flag("--yes", options->isSure, "do not ask; needed without a terminal");
    auto* const isAuto =
        words->add_flag("--auto", options->isAuto,
                        "as its timer does: report an ERROR instead of asking, and wait for a "
                        "service that is away");
    isAuto->needs(id);
    words->add_option("--retry", options->retry, "with --auto: how long it waits for the service")
        ->type_name("TIME")
        ->needs(isAuto)
        ->capture_default_str();
    words->add_option("--after", options->after)->needs(isAuto)->group("");
    words->callback([options, &command] {
        command = [options](Session& session) { return RollbackCommand(*options).run(session); };
    });
}

}  // namespace

void addConfirmWords(CLI::App& conf, Command& command) {
    addImport(conf, command);
    addGuard(conf, command);
    addConfirm(conf, command);
    conf.add_subcommand("pending", "list the changes that revert unless they are confirmed")
        ->callback([&command] { command = showPending; });
    addRollback(conf, command);
}

}  // namespace Hox::Ctl
