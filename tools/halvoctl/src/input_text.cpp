#include "input_text.h"

#include <fstream>
#include <iterator>

#include "ctl_error.h"

namespace Hox::Ctl {

namespace {

std::string readAll(std::istream& in) {
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

}  // namespace

std::string readInput(std::istream& in, const std::string& path) {
    if (path == "-") {
        return readAll(in);
    }
    std::ifstream file(path, std::ios::binary);
    auto text = readAll(file);
    if (!file.is_open() || file.bad()) {
        throw CtlError(ExitCode::Usage, "cannot read " + path);
    }
    return text;
}

}  // namespace Hox::Ctl
