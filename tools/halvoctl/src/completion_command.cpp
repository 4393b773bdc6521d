#include "completion_command.h"

#include <CLI/CLI.hpp>
#include <memory>
#include <set>
#include <thread>

#include "command_words.h"
#include "ctl_error.h"
#include "live_names.h"

namespace Hox::Ctl {

namespace {

constexpr std::chrono::milliseconds longestWait(300);

const std::string bashScript = R"sh(# Completion of halvoctl: eval "$(halvoctl completion bash)"
_halvoctl() {
    local IFS=$'\n'
    COMPREPLY=($("${COMP_WORDS[0]}" __complete "${COMP_LINE:0:COMP_POINT}" 2>/dev/null))
    if [[ ${#COMPREPLY[@]} -eq 1 && ${COMPREPLY[0]} == */ ]]; then
        compopt -o nospace
    fi
}
complete -o default -F _halvoctl halvoctl
)sh";

const std::string zshScript = R"sh(# Completion of halvoctl: eval "$(halvoctl completion zsh)"
_halvoctl() {
    local -a found
    found=("${(@f)$(${words[1]} __complete "$LBUFFER" 2>/dev/null)}")
    if [[ -n ${found[1]} ]]; then
        compadd -Q -- "${found[@]}"
    else
        _files
    fi
}
compdef _halvoctl halvoctl
)sh";

/// Requests an interrupt after some time, unless it is destroyed before.
class TimeLimit {
public:
    explicit TimeLimit(Interrupt& interrupt)
        : m_thread([this, &interrupt] {
              if (!m_end.waitFor(longestWait)) {
                  interrupt.request();
              }
          }) {}
    ~TimeLimit() {
        m_end.request();
        m_thread.join();
    }
    TimeLimit(const TimeLimit&) = delete;
    TimeLimit& operator=(const TimeLimit&) = delete;

private:
    Interrupt m_end;
    std::thread m_thread;
};

}  // namespace

void printCompletion(const Session& session, const Completion& completion) {
    std::set<std::string> all(completion.words.begin(), completion.words.end());
    try {
        Interrupt interrupt;
        const TimeLimit limit(interrupt);
        const auto names = LiveNames(session, interrupt).at(completion.place, completion.start);
        all.insert(names.begin(), names.end());
    } catch (const CtlError&) {
        // Nobody is asked about the service while he types.
        all.erase("");
    }
    for (const auto& word : all) {
        if (word.compare(0, completion.start.size(), completion.start) == 0) {
            session.out() << word << '\n';
        }
    }
}

void addCompletionWords(CLI::App& app, Command& command) {
    auto shell = std::make_shared<std::string>();
    auto* const words = app.add_subcommand(
        "completion", "print what makes a shell complete the words of this tool");
    words->add_option("SHELL", *shell, "the shell")
        ->required()
        ->check(CLI::IsMember({"bash", "zsh"}));
    words->callback([shell, &command] {
        command = [shell](Session& session) {
            session.out() << (*shell == "bash" ? bashScript : zshScript);
            return ExitCode::Done;
        };
    });
}

}  // namespace Hox::Ctl
