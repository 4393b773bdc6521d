#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "command_words.h"
#include "doctor.h"
#include "metrics_command.h"
#include "support_command.h"

namespace Hox::Ctl {

namespace {

void addPlaces(CLI::App& words, DoctorWords& given) {
    words.add_option("--user", given.user,
                     "as whom the service runs (that of the running one, otherwise this user)");
    words
        .add_option("--configdir", given.configFolder,
                    "its configuration folder (that of the running one, otherwise /var/lib/halvo)")
        ->type_name("FOLDER");
    words.add_option("--program", given.program, "its program (that of the running one)")
        ->type_name("FILE");
}

void addSupport(CLI::App& app, Command& command) {
    auto given = std::make_shared<DoctorWords>();
    auto path = std::make_shared<std::string>();
    auto* const words = app.add_subcommand(
        "support", "pack what helps to find a fault, without the community of traps");
    words->add_option("FILE", *path, "the archive to write (.tar.gz)")->required();
    addPlaces(*words, *given);
    words->callback([given, path, &command] {
        command = [given, path](Session& session) {
            return SupportCommand(session, *given).run(*path);
        };
    });
}

}  // namespace

void addDoctorWords(CLI::App& app, Command& command) {
    auto given = std::make_shared<DoctorWords>();
    auto* const words = app.add_subcommand(
        "doctor", "examine a service and its machine; exit status 4 if something fails");
    words->add_flag("--before-start", given->isBeforeStart,
                    "send nothing: the service does not run yet");
    addPlaces(*words, *given);
    words->callback([given, &command] {
        command = [given](Session& session) { return runDoctor(session, *given); };
    });
    addSupport(app, command);
    app.add_subcommand("metrics", "print measurements once, as a text for Prometheus")
        ->callback([&command] { command = printMetrics; });
}

}  // namespace Hox::Ctl
