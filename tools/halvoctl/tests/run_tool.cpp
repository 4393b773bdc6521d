#include "run_tool.h"

#include <sstream>

#include "channel.h"
#include "command_line.h"

namespace Hox::Ctl {

ToolRun Tool::run(const std::vector<std::string>& words) {
    std::istringstream input(in);
    std::ostringstream out;
    std::ostringstream err;
    const auto find = [this](const std::string& name) {
        const auto found = environment.find(name);
        return found == environment.end() ? "" : found->second;
    };
    Surroundings surroundings{input,     out,          err,
                              interrupt, makeChannel,  [this] { return now; },
                              find,      isInTerminal, isOutTerminal};
    const auto code = runCommandLine(words, surroundings);
    return {code, out.str(), err.str()};
}

}  // namespace Hox::Ctl
