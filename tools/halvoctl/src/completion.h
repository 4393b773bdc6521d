#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace Hox::Ctl {

/// What may come at the end of a command line that is being typed.
struct Completion {
    std::string start;                ///< What is there of the last word.
    std::vector<std::string> words;   ///< All words that may be meant, whatever is there.
    std::string place;                ///< What a service or a record names, as in GLOB or METHOD.
    std::vector<std::string> global;  ///< The global options that are there, with their values.
};

/// Finds out what may come at the end of these words, the last of which is being typed.
Completion complete(const CLI::App& app, const std::vector<std::string>& words);

/// The words of a line, without its quotes. The last one is empty if the line ends with a blank.
std::vector<std::string> splitLine(const std::string& line);

}  // namespace Hox::Ctl
