#include "table.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "printable.h"

namespace Hox::Ctl {

namespace {

constexpr std::size_t gap = 2;

}  // namespace

Table::Table(std::vector<std::string> headings) {
    m_rows.push_back({std::move(headings), {}});
}

void Table::add(std::vector<std::string> texts, std::optional<Painter::Color> color) {
    for (auto& text : texts) {
        text = printable(text);
    }
    m_rows.push_back({std::move(texts), color});
}

void Table::print(std::ostream& out, const Painter& painter) const {
    if (m_rows.size() == 1) {
        return;
    }
    std::vector<std::size_t> widths(m_rows.front().texts.size());
    for (const auto& row : m_rows) {
        for (std::size_t column = 0; column < widths.size(); ++column) {
            widths[column] = std::max(widths[column], characters(row.texts[column]));
        }
    }
    for (const auto& row : m_rows) {
        std::string line;
        for (std::size_t column = 0; column < widths.size(); ++column) {
            const auto& text = row.texts[column];
            line += column == 0 && row.color ? painter.paint(*row.color, text) : text;
            if (column + 1 < widths.size()) {
                line.append(widths[column] + gap - characters(text), ' ');
            }
        }
        line.erase(line.find_last_not_of(' ') + 1);
        out << line << '\n';
    }
}

}  // namespace Hox::Ctl
