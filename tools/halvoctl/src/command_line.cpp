#include "command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <map>
#include <optional>

#include "command.h"
#include "command_words.h"
#include "completion.h"
#include "completion_command.h"
#include "ctl_error.h"
#include "duration.h"
#include "hox/cpputil/error/error.h"
#include "printable.h"

namespace Hox::Ctl {

namespace {

/// The texts of the global options, as the user has given them.
struct GlobalTexts {
    std::vector<std::string> endpoints;
    std::string format = "table";
    std::string timeout = "10s";
    std::string color = "auto";
    GlobalOptions options;
};

const std::map<std::string, GlobalOptions::Format>& formats() {
    static const std::map<std::string, GlobalOptions::Format> all{
        {"table", GlobalOptions::Format::Table},
        {"json", GlobalOptions::Format::Json},
        {"jsonl", GlobalOptions::Format::JsonLines}};
    return all;
}

void addGlobalOptions(CLI::App& app, GlobalTexts& texts) {
    app.add_option("-e,--endpoint", texts.endpoints,
                   "where the service listens, or what it is on the network; ping, state, watch, "
                   "doctor and metrics take several (HALVO_ENDPOINT, otherwise localhost:5005)")
        ->type_name("HOST:PORT|mdns:CAPABILITY[/ID]")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    app.add_option("-o,--output", texts.format, "how results are printed")
        ->check(CLI::IsMember({"table", "json", "jsonl"}))
        ->capture_default_str();
    app.add_option("--timeout", texts.timeout, "how long a call may take")
        ->type_name("TIME")
        ->capture_default_str();
    app.add_option("--protoset", texts.options.protoset,
                   "the proto files of the service, from protoc --include_imports "
                   "--descriptor_set_out, instead of asking the service")
        ->type_name("FILE");
    app.add_flag("-q,--quiet", texts.options.isQuiet, "no notes on the error output");
    app.add_flag("-v,--verbose", texts.options.isVerbose, "requests on the error output");
    app.add_option("--color", texts.color,
                   "colours in tables; auto: on a terminal, unless NO_COLOR is set and not empty")
        ->check(CLI::IsMember({"auto", "always", "never"}))
        ->capture_default_str();
    app.set_version_flag("--version", "halvoctl " HALVOCTL_VERSION, "the version of the tool");
}

GlobalOptions globalOptions(const GlobalTexts& texts, const Surroundings& surroundings) {
    auto options = texts.options;
    options.endpoints = texts.endpoints;
    if (options.endpoints.empty()) {
        const auto endpoint = surroundings.environment("HALVO_ENDPOINT");
        options.endpoints.push_back(endpoint.empty() ? "localhost:5005" : endpoint);
    }
    options.format = formats().at(texts.format);
    options.timeout = parseDuration(texts.timeout);
    options.hasColor =
        texts.color == "always" || (texts.color == "auto" && surroundings.isOutTerminal &&
                                    surroundings.environment("NO_COLOR").empty());
    return options;
}

ExitCode report(const CtlError& error, std::ostream& err) {
    if (*error.what() != '\0') {
        err << "halvoctl: " << printableLines(error.what()) << '\n';
    }
    if (!error.hint().empty()) {
        err << "hint: " << printableLines(error.hint()) << '\n';
    }
    return error.code();
}

void addAllWords(CLI::App& app, GlobalTexts& texts, Command& command) {
    app.require_subcommand(1);
    app.fallthrough();
    addGlobalOptions(app, texts);
    addServiceWords(app, command);
    addWatchWords(app, command);
    addStateWords(app, command);
    addConfWords(app, command);
    addLogWords(app, command);
    addSnmpWords(app, command);
    addDoctorWords(app, command);
    addCompletionWords(app, command);
}

/// Prints what may come at the end of the line; silent whatever happens.
ExitCode completeLine(const std::string& line, Surroundings& surroundings) {
    try {
        auto words = splitLine(line);
        words.erase(words.begin());  // the tool itself
        GlobalTexts texts;
        Command unused;
        CLI::App app;
        addAllWords(app, texts, unused);
        auto completion = complete(app, words);
        CLI::App global;
        GlobalTexts given;
        addGlobalOptions(global, given);
        std::reverse(completion.global.begin(), completion.global.end());
        global.parse(completion.global);
        printCompletion(Session(surroundings, globalOptions(given, surroundings)), completion);
    } catch (const std::exception&) {
        return ExitCode::Done;
    }
    return ExitCode::Done;
}

/// The parser asks for a command although it has been given one that it does not know.
void refuseUnknownCommand(const CLI::App& app, const CLI::ParseError& error) {
    const auto unknown = app.remaining(true);
    if (error.get_name() == "RequiredError" && !unknown.empty() &&
        unknown.front().rfind('-', 0) != 0) {
        throw CtlError(ExitCode::Usage, "no command \"" + unknown.front() + "\"",
                       "halvoctl --help lists all commands");
    }
}

/// Parses and runs; throws CtlError.
ExitCode parseAndRun(std::vector<std::string> words, Surroundings& surroundings) {
    constexpr std::size_t wordsOfCompletion = 2;
    if (words.size() == wordsOfCompletion && words.front() == completionWord) {
        return completeLine(words.back(), surroundings);
    }
    CLI::App app("The operator's tool for the services of a head-end", "halvoctl");
    GlobalTexts texts;
    Command command;
    addAllWords(app, texts, command);
    try {
        std::reverse(words.begin(), words.end());
        app.parse(std::move(words));
    } catch (const CLI::ParseError& error) {
        refuseUnknownCommand(app, error);
        const auto status = app.exit(error, surroundings.out, surroundings.err);
        return status == 0 ? ExitCode::Done : ExitCode::Usage;
    }
    Session session(surroundings, globalOptions(texts, surroundings));
    return command(session);
}

}  // namespace

ExitCode runCommandLine(const std::vector<std::string>& words, Surroundings& surroundings) {
    auto code = ExitCode::Usage;
    try {
        code = parseAndRun(words, surroundings);
    } catch (const CtlError& error) {
        code = report(error, surroundings.err);
    } catch (const std::exception& error) {
        surroundings.err << "halvoctl: " << printableLines(error.what()) << '\n';
    }
    if (!surroundings.out.flush()) {
        surroundings.err << "halvoctl: the result cannot be written\n";
        return code == ExitCode::Done ? ExitCode::Usage : code;
    }
    return code;
}

}  // namespace Hox::Ctl
