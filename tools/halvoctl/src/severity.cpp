#include "severity.h"

#include <algorithm>
#include <cctype>

#include "ctl_error.h"

namespace Hox::Ctl {

namespace Api = Hox::Capability::StateMonitoring::Api;

namespace {

std::string upperCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return text;
}

}  // namespace

const std::vector<std::string>& severityNames() {
    static const std::vector<std::string> names{"ok", "warn", "booting", "error"};
    return names;
}

Severity parseSeverity(const std::string& name) {
    Severity severity{};
    if (!Api::StateSeverity_Parse(upperCase(name), &severity)) {
        throw CtlError(ExitCode::Usage, "\"" + name + "\" is no severity",
                       "ok, warn, booting or error");
    }
    return severity;
}

std::string severityText(Severity severity) {
    const auto& name = Api::StateSeverity_Name(severity);
    return name.empty() ? std::to_string(static_cast<int>(severity)) : name;
}

int severityRank(Severity severity) {
    switch (severity) {
        case Api::OK:
            return 0;
        case Api::WARN:
            return 1;
        case Api::BOOTING:
            return 2;
        default:
            return 3;
    }
}

Painter::Color severityColor(Severity severity) {
    switch (severity) {
        case Api::OK:
            return Painter::Color::Green;
        case Api::WARN:
            return Painter::Color::Yellow;
        case Api::BOOTING:
            return Painter::Color::Blue;
        default:
            return Painter::Color::Red;
    }
}

}  // namespace Hox::Ctl
