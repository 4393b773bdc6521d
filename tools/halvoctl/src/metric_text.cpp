#include "metric_text.h"

#include <fmt/format.h>

#include <algorithm>

#include "printable.h"

namespace Hox::Ctl {

namespace {

/// Whether nothing but line ends would have to be escaped for a terminal.
bool isPlain(std::string text) {
    text.erase(std::remove(text.begin(), text.end(), '\n'), text.end());
    return printable(text) == text;
}

/// A label's value is any UTF-8; three characters are escaped.
std::string escaped(const std::string& text) {
    std::string result;
    for (const char character : isPlain(text) ? text : printable(text)) {
        if (character == '\n') {
            result += "\\n";
            continue;
        }
        if (character == '\\' || character == '"') {
            result += '\\';
        }
        result += character;
    }
    return result;
}

}  // namespace

std::string metricText(const MetricList& list) {
    std::string text;
    std::string family;
    for (const auto& metric : list.metrics()) {
        if (metric.name() != family) {
            family = metric.name();
            text += fmt::format("# HELP {} {}\n# TYPE {} gauge\n", family, metric.help(), family);
        }
        std::string labels;
        for (const auto& label : metric.labels()) {
            labels += fmt::format("{}{}=\"{}\"", labels.empty() ? "" : ",", label.name(),
                                  escaped(label.value()));
        }
        text += fmt::format("{}{{{}}} {}\n", metric.name(), labels, metric.value());
    }
    return text;
}

}  // namespace Hox::Ctl
