#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "command_words.h"
#include "snmp_commands.h"

namespace Hox::Ctl {

namespace {

void addManager(CLI::App& snmp, Command& command) {
    auto manager = std::make_shared<ManagerWords>();
    auto* const words = snmp.add_subcommand("set", "send the traps to this manager");
    words->add_option("MANAGER", manager->address, "its address or name")->required();
    words->add_option("--port", manager->port, "the port on which it listens")
        ->type_name("PORT")
        ->capture_default_str();
    words->add_option("--community", manager->community, "the community of the traps")
        ->type_name("TEXT")
        ->capture_default_str();
    words->callback([manager, &command] {
        command = [manager](Session& session) { return setManager(session, *manager); };
    });
}

void addTest(CLI::App& snmp, Command& command) {
    auto type = std::make_shared<std::string>(trapTypes().front());
    auto* const words = snmp.add_subcommand("test", "report a bad state and OK: two traps");
    words->add_option("--type", *type, "the type of the reports")
        ->check(CLI::IsMember(trapTypes()))
        ->capture_default_str();
    words->callback([type, &command] {
        command = [type](Session& session) { return testTraps(session, *type); };
    });
}

}  // namespace

void addSnmpWords(CLI::App& app, Command& command) {
    auto* const snmp = app.add_subcommand("snmp", "the manager that gets the traps");
    snmp->require_subcommand(1);
    snmp->add_subcommand("show", "print the manager")->callback([&command] {
        command = showManager;
    });
    addManager(*snmp, command);
    snmp->add_subcommand("clear", "send no more traps")->callback([&command] {
        command = clearManager;
    });
    addTest(*snmp, command);
}

}  // namespace Hox::Ctl
