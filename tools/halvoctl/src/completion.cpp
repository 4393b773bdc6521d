#include "completion.h"

#include <CLI/CLI.hpp>
#include <sstream>

namespace Hox::Ctl {

namespace {

/// The words between braces, as in "TEXT:{table,json}": those of which the value is one.
std::vector<std::string> choicesOf(const CLI::Option& option) {
    const auto text = option.get_type_name();
    const auto begin = text.find('{');
    const auto end = text.find('}');
    std::vector<std::string> choices;
    if (begin == std::string::npos || end == std::string::npos) {
        return choices;
    }
    std::istringstream words(text.substr(begin + 1, end - begin - 1));
    for (std::string word; std::getline(words, word, ',');) {
        choices.push_back(word);
    }
    return choices;
}

bool isOption(const std::string& word) {
    return word.size() > 1 && word.front() == '-';
}

/// Reads the words one after the other.
class LineReader {
public:
    explicit LineReader(const CLI::App& app) : m_app(&app) {}

    void read(const std::string& word) {
        if (m_option != nullptr) {
            if (m_isGlobal) {
                m_global.insert(m_global.end(), {m_optionWord, word});
            }
            m_option = nullptr;
        } else if (isOption(word)) {
            readOption(word);
        } else if (const auto* const command = commandNamed(word)) {
            m_app = command;
        } else {
            ++m_positionals;
        }
    }

    Completion end(const std::string& start) const {
        Completion result{start, {}, "", m_global};
        if (m_option != nullptr) {
            result.words = choicesOf(*m_option);
        } else if (isOption(start) || start == "-") {
            addOptions(result);
        } else {
            addCommands(result);
            addPositional(result);
        }
        return result;
    }

private:
    void readOption(const std::string& word) {
        const auto equal = word.find('=');
        const auto name = word.substr(0, equal);
        for (const auto* app = m_app; app != nullptr; app = app->get_parent()) {
            const auto* const option = app->get_option_no_throw(name);
            if (option == nullptr) {
                continue;
            }
            m_isGlobal = app->get_parent() == nullptr;
            m_optionWord = word;
            if (equal == std::string::npos && option->get_items_expected_max() > 0) {
                m_option = option;
            } else if (m_isGlobal) {
                m_global.push_back(word);
            }
            return;
        }
    }

    const CLI::App* commandNamed(const std::string& word) const {
        for (const auto* const command : commands()) {
            if (m_positionals == 0 && command->get_name() == word) {
                return command;
            }
        }
        return nullptr;
    }

    std::vector<const CLI::App*> commands() const {
        return m_app->get_subcommands(
            [](const CLI::App* app) { return !app->get_group().empty(); });
    }

    void addCommands(Completion& result) const {
        for (const auto* const command : commands()) {
            if (m_positionals == 0) {
                result.words.push_back(command->get_name());
            }
        }
    }

    void addOptions(Completion& result) const {
        for (const auto* app = m_app; app != nullptr; app = app->get_parent()) {
            for (const auto* const option : app->get_options()) {
                const auto& names = option->get_lnames();
                if (!names.empty() && !option->get_group().empty()) {
                    result.words.push_back("--" + names.front());
                }
            }
        }
    }

    void addPositional(Completion& result) const {
        std::size_t number = 0;
        for (const auto* const option : m_app->get_options()) {
            if (option->get_positional() && number++ == m_positionals) {
                const auto choices = choicesOf(*option);
                result.words.insert(result.words.end(), choices.begin(), choices.end());
                result.place = option->get_single_name();
            }
        }
    }

    const CLI::App* m_app;
    const CLI::Option* m_option = nullptr;  // whose value is next
    std::string m_optionWord;
    bool m_isGlobal = false;
    std::size_t m_positionals = 0;
    std::vector<std::string> m_global;
};

}  // namespace

Completion complete(const CLI::App& app, const std::vector<std::string>& words) {
    LineReader reader(app);
    for (std::size_t index = 0; index + 1 < words.size(); ++index) {
        reader.read(words[index]);
    }
    return reader.end(words.empty() ? "" : words.back());
}

std::vector<std::string> splitLine(const std::string& line) {
    std::vector<std::string> words{""};
    char quote = '\0';
    for (const char letter : line) {
        if (quote != '\0') {
            if (letter == quote) {
                quote = '\0';
            } else {
                words.back() += letter;
            }
        } else if (letter == '\'' || letter == '"') {
            quote = letter;
        } else if (letter != ' ' && letter != '\t') {
            words.back() += letter;
        } else if (!words.back().empty()) {
            words.emplace_back();
        }
    }
    return words;
}

}  // namespace Hox::Ctl
