#pragma once

#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "painter.h"

namespace Hox::Ctl {

/// Texts in columns, under headings.
class Table {
public:
    /// A row has as many texts as there are headings.
    explicit Table(std::vector<std::string> headings);

    /// Adds a row. Texts are made printable; the first one gets the colour.
    void add(std::vector<std::string> texts, std::optional<Painter::Color> color = {});

    /// Prints heading and rows; nothing if there is no row.
    void print(std::ostream& out, const Painter& painter) const;

private:
    struct Row {
        std::vector<std::string> texts;
        std::optional<Painter::Color> color;
    };

    std::vector<Row> m_rows;
};

}  // namespace Hox::Ctl
