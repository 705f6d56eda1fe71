// Table: rows in columns, of which the less important ones give way when there is no room.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "top/Line.h"

namespace top {

struct Column {
    std::string title;
    size_t width;  ///< 0: takes what is left; there is one of these at most.
    bool right;    ///< Figures stand at the right.
    int rank;      ///< The highest goes first; 0 stays.
};

class Table {
public:
    /// `least` columns of the screen are kept for the column that takes what is left, before others go.
    Table(std::vector<Column> columns, size_t least);

    /// A row: a cell for each column. `style` is of the whole of it, `marks` of single cells.
    void add(std::vector<std::string> cells, Style style = Style::NORMAL,
             const std::vector<std::pair<size_t, Style>>& marks = {});
    size_t size() const { return m_rows.size(); }

    /// The titles and rows from `first` on, `most` lines in all; the last one says how many are missing.
    /// `width` 0: as wide as they are.
    std::vector<Line> lines(size_t width, size_t first, size_t most) const;

private:
    struct Row {
        std::vector<std::string> cells;
        std::vector<Style> styles;
    };

    std::vector<size_t> choose(size_t width) const;
    size_t natural_width(size_t column) const;
    size_t flexible_width(const std::vector<size_t>& shown, size_t width) const;

    std::vector<Column> m_columns;
    size_t m_least;
    std::vector<Row> m_rows;
};

}  // namespace top
