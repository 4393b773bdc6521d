#include <CLI/CLI.hpp>
#include <memory>
#include <optional>
#include <string>

#include "changed_slices.h"
#include "command_words.h"
#include "conf_commands.h"

namespace Hox::Ctl {

namespace {

using Asking = ExitCode (*)(Session&, bool);
using WithFile = ExitCode (*)(Session&, const std::string&);

/// A command that asks before it does something that cannot be undone.
void addAsking(CLI::App& conf, Command& command, const char* name, const char* text, Asking run) {
    auto isSure = std::make_shared<bool>(false);
    auto* const words = conf.add_subcommand(name, text);
    words->add_flag("--yes", *isSure, "do not ask; needed without a terminal");
    words->callback([isSure, run, &command] {
        command = [isSure, run](Session& session) { return run(session, *isSure); };
    });
}

void addWithFile(CLI::App& conf, Command& command, const char* name, const char* text,
                 const char* fileText, WithFile run) {
    auto path = std::make_shared<std::string>();
    auto* const words = conf.add_subcommand(name, text);
    words->add_option("FILE", *path, fileText)->required();
    words->callback([path, run, &command] {
        command = [path, run](Session& session) { return run(session, *path); };
    });
}

void addStatus(CLI::App& conf, Command& command) {
    auto log = std::make_shared<std::string>();
    auto* const words =
        conf.add_subcommand("status", "print whether all is saved; exit status 4 if it is not");
    auto* const option =
        words
            ->add_option("--log", *log,
                         "also the slices that have been changed since the last save, by a log on "
                         "this machine (" +
                             std::string(defaultLog) + ")")
            ->type_name("[FILE]")
            ->expected(0, 1);
    words->callback([log, option, &command] {
        std::optional<std::string> path;
        if (option->count() > 0) {
            path = log->empty() ? defaultLog : *log;
        }
        command = [path](Session& session) { return showSaving(session, path); };
    });
}

}  // namespace

void addConfWords(CLI::App& app, Command& command) {
    auto* const conf = app.add_subcommand("conf", "the configuration of all services");
    conf->require_subcommand(1);
    addStatus(*conf, command);
    conf->add_subcommand("save", "save the configuration in force")->callback([&command] {
        command = saveConf;
    });
    addAsking(*conf, command, "revert", "revert to the saved configuration", revertConf);
    addAsking(*conf, command, "clear", "remove the whole configuration, also the saved one",
              clearConf);
    addWithFile(*conf, command, "export", "write the saved configuration to a package",
                "the package, - for the output", exportConf);
    addConfirmWords(*conf, command);
    addPackageWords(*conf, command);
}

}  // namespace Hox::Ctl
