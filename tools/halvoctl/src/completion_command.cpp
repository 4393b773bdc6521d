#include "completion_command.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iterator>
#include <memory>
#include <set>
#include <string_view>
#include <thread>

#include "command_words.h"
#include "ctl_error.h"
#include "live_names.h"

namespace Hox::Ctl {

namespace {

constexpr std::chrono::milliseconds longestWait(300);

const std::string bashScript = R"sh(# Completion of halvoctl: eval "$(halvoctl completion bash)"
_halvoctl() {
    mapfile -t COMPREPLY < <("${COMP_WORDS[0]}" __complete "${COMP_LINE:0:COMP_POINT}" 2>/dev/null)
    if [[ ${#COMPREPLY[@]} -eq 1 && ${COMPREPLY[0]} == */ ]]; then
        compopt -o nospace
    fi
}
complete -o default -F _halvoctl halvoctl
)sh";

const std::string zshScript = R"sh(#compdef halvoctl
# Completion of halvoctl: a file _halvoctl in fpath, or eval "$(halvoctl completion zsh)"
_halvoctl() {
    local -a found
    found=("${(@f)$(${words[1]} __complete "$LBUFFER" 2>/dev/null)}")
    if [[ -n ${found[1]} ]]; then
        compadd -Q -- "${found[@]}"
    else
        _files
    fi
}
if [[ ${funcstack[1]} == _halvoctl ]]; then
    _halvoctl
else
    compdef _halvoctl halvoctl
fi
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

/// Whether the word means itself in every shell. What others have named is not trusted: a completed
/// line runs.
bool isPlain(const std::string& word) {
    return std::all_of(word.begin(), word.end(), [](char letter) {
        constexpr std::string_view others = "_./@%+,=:-";
        const bool isLetter = (letter >= 'a' && letter <= 'z') || (letter >= 'A' && letter <= 'Z');
        const bool isDigit = letter >= '0' && letter <= '9';
        return isLetter || isDigit || others.find(letter) != std::string_view::npos;
    });
}

}  // namespace

void printCompletion(const Session& session, const Completion& completion) {
    std::set<std::string> all(completion.words.begin(), completion.words.end());
    try {
        Interrupt interrupt;
        const TimeLimit limit(interrupt);
        const auto names = LiveNames(session, interrupt).at(completion.place, completion.start);
        std::copy_if(names.begin(), names.end(), std::inserter(all, all.end()), isPlain);
    } catch (const CtlError&) {
        // An error would spoil the line that is being typed.
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
