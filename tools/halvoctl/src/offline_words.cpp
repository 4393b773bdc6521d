#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "command_words.h"
#include "key_owner.h"
#include "package_commands.h"

namespace Hox::Ctl {

namespace {

constexpr const char* placeText =
    "a package; @ for the saved copy of the endpoint, - for the input";

/// What the user has written.
struct PlaceWords {
    std::string place = "@";
    std::string other = "@";
    std::string key;
    bool isOn = false;
};

void addLs(CLI::App& conf, Command& command) {
    auto given = std::make_shared<PlaceWords>();
    auto* const words = conf.add_subcommand("ls", "list the keys of a package");
    words->add_option("FILE", given->place, placeText)->capture_default_str();
    words->add_flag("-l,--long", given->isOn, "with sizes and values");
    words->callback([given, &command] {
        command = [given](Session& session) {
            return listKeys(session, given->place, given->isOn);
        };
    });
}

void addGet(CLI::App& conf, Command& command) {
    auto given = std::make_shared<PlaceWords>();
    auto* const words =
        conf.add_subcommand("get", "print the value of a key; exit status 4 if there is none");
    words->add_option("KEY", given->key, "the whole key")->required();
    words->add_option("FILE", given->place, placeText)->capture_default_str();
    words->callback([given, &command] {
        command = [given](Session& session) { return printKey(session, given->key, given->place); };
    });
}

void addDiff(CLI::App& conf, Command& command) {
    auto given = std::make_shared<PlaceWords>();
    auto* const words = conf.add_subcommand(
        "diff", "print the keys that differ between two packages; exit status 4 if there are any");
    words->add_option("A", given->place, placeText)->required();
    words->add_option("B", given->other, placeText)->capture_default_str();
    words->callback([given, &command] {
        command = [given](Session& session) {
            return comparePackages(session, given->place, given->other);
        };
    });
}

void addLint(CLI::App& conf, Command& command) {
    auto given = std::make_shared<PlaceWords>();
    auto* const words = conf.add_subcommand(
        "lint", "print what is wrong in a package; exit status 4 if there is anything");
    words->add_option("FILE", given->place, placeText)->required();
    words->callback([given, &command] {
        command = [given](Session& session) { return lintPackage(session, given->place); };
    });
}

void addVerify(CLI::App& conf, Command& command) {
    auto given = std::make_shared<PlaceWords>();
    auto* const words = conf.add_subcommand(
        "verify", "print whether the endpoint accepts a package; exit status 4 if it does not");
    words->add_option("FILE", given->place, placeText)->required();
    words->add_flag("--here", given->isOn,
                    "ask for the services of this machine instead, by its files alone");
    words->callback([given, &command] {
        command = [given](Session& session) {
            return verifyPackage(session, given->place, given->isOn);
        };
    });
}

void addOwner(CLI::App& conf, Command& command) {
    auto given = std::make_shared<PlaceWords>();
    auto* const words = conf.add_subcommand("owner", "print to what a key belongs");
    words->add_option("KEY", given->key, "a key below /sys/conf")->required();
    words->callback([given, &command] {
        command = [given](Session& session) { return showOwner(session, given->key); };
    });
}

}  // namespace

void addPackageWords(CLI::App& conf, Command& command) {
    addLs(conf, command);
    addGet(conf, command);
    addDiff(conf, command);
    addLint(conf, command);
    addVerify(conf, command);
    addOwner(conf, command);
}

}  // namespace Hox::Ctl
