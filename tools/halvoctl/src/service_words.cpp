#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "call_command.h"
#include "command_words.h"
#include "discover_command.h"
#include "service_commands.h"

namespace Hox::Ctl {

namespace {

void addCall(CLI::App& app, Command& command) {
    auto options = std::make_shared<CallCommand::Options>();
    auto* const words =
        app.add_subcommand("call", "call a method; a stream is printed line by line");
    words->add_option("METHOD", options->method, "the end of the method's full name")->required();
    words->add_option("-d,--data", options->data, "the request, as JSON")
        ->type_name("JSON|@FILE|-")
        ->capture_default_str();
    words->add_flag("--owner", options->isOwner,
                    "observe a slice, although it ends the service if the slice has an owner");
    words->callback([options, &command] {
        command = [options](Session& session) { return CallCommand(*options).run(session); };
    });
}

}  // namespace

void addServiceWords(CLI::App& app, Command& command) {
    app.add_subcommand("ping", "measure the time to an answer")->callback([&command] {
        command = ping;
    });
    app.add_subcommand("services", "list the methods with operation and address")
        ->callback([&command] { command = listMethods; });
    app.add_subcommand("discover", "list the capabilities on the network")->callback([&command] {
        command = discover;
    });
    auto symbol = std::make_shared<std::string>();
    auto* const words = app.add_subcommand("describe", "print the proto text of a name");
    words->add_option("SYMBOL", *symbol, "a service, method, message, enum or proto file")
        ->required();
    words->callback([symbol, &command] {
        command = [symbol](Session& session) { return describe(session, *symbol); };
    });
    addCall(app, command);
}

}  // namespace Hox::Ctl
