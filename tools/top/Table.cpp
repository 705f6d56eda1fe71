// Table: laid out anew for each width.
#include "top/Table.h"

#include <algorithm>
#include <utility>

#include "top/Text.h"

namespace top {

namespace {

constexpr size_t GAP = 2;

}  // namespace

Table::Table(std::vector<Column> columns, size_t least) : m_columns(std::move(columns)), m_least(least) {}

void Table::add(std::vector<std::string> cells, Style style,
                const std::vector<std::pair<size_t, Style>>& marks) {
    cells.resize(m_columns.size());
    for (std::string& cell : cells) {
        cell = clean(cell);
    }
    std::vector<Style> styles(m_columns.size(), style);
    for (const auto& [column, mark] : marks) {
        styles.at(column) = mark;
    }
    m_rows.push_back({std::move(cells), std::move(styles)});
}

/// The columns for which there is room.
std::vector<size_t> Table::choose(size_t width) const {
    std::vector<size_t> shown(m_columns.size());
    for (size_t i = 0; i < shown.size(); ++i) {
        shown[i] = i;
    }
    while (width != 0) {
        size_t needed = 0;
        size_t last = 0;
        for (size_t place = 0; place < shown.size(); ++place) {
            const Column& column = m_columns[shown[place]];
            needed += (place == 0 ? 0 : GAP) + (column.width == 0 ? m_least : column.width);
            last = column.rank > m_columns[shown[last]].rank ? place : last;
        }
        if (needed <= width || m_columns[shown[last]].rank == 0) {
            break;
        }
        shown.erase(shown.begin() + static_cast<std::ptrdiff_t>(last));
    }
    return shown;
}

size_t Table::natural_width(size_t column) const {
    size_t widest = columns(m_columns[column].title);
    for (const Row& row : m_rows) {
        widest = std::max(widest, columns(row.cells[column]));
    }
    return widest;
}

/// Of the column that takes what is left.
size_t Table::flexible_width(const std::vector<size_t>& shown, size_t width) const {
    size_t others = 0;
    size_t flexible = 0;
    for (size_t place = 0; place < shown.size(); ++place) {
        others += (place == 0 ? 0 : GAP) + m_columns[shown[place]].width;
        flexible = m_columns[shown[place]].width == 0 ? shown[place] : flexible;
    }
    const size_t natural = std::max(m_least, natural_width(flexible));
    return width == 0 ? natural : width > others ? std::min(width - others, natural) : 1;
}

std::vector<Line> Table::lines(size_t width, size_t first, size_t most) const {
    const std::vector<size_t> shown = choose(width);
    const size_t flexible = flexible_width(shown, width);
    const auto lay = [&](const auto& cell_of, const auto& style_of) {
        Line line;
        for (size_t place = 0; place < shown.size(); ++place) {
            const Column& column = m_columns[shown[place]];
            const bool bare = place + 1 == shown.size() && !column.right;  // no blanks at the end of a line
            const size_t room = column.width == 0 ? flexible : column.width;
            const std::string text = cell_of(shown[place]);
            line.push_back(
                {style_of(shown[place]), (place == 0 ? "" : std::string(GAP, ' ')) +
                                             (bare ? fit(text, room) : pad(text, room, column.right))});
        }
        return line;
    };
    std::vector<Line> lines;
    if (most == 0) {
        return lines;
    }
    lines.push_back(lay([&](size_t i) { return m_columns[i].title; }, [](size_t) { return Style::TITLE; }));
    first = std::min(first, m_rows.empty() ? 0 : m_rows.size() - 1);
    for (size_t i = first; i < m_rows.size() && lines.size() < most; ++i) {
        const Row& row = m_rows[i];
        if (lines.size() + 1 == most && i + 1 < m_rows.size() && most > 2) {
            lines.push_back({{Style::DIM, fit("and " + std::to_string(m_rows.size() - i) + " more",
                                              width == 0 ? 80 : width)}});
            break;
        }
        lines.push_back(lay([&](size_t c) { return row.cells[c]; }, [&](size_t c) { return row.styles[c]; }));
    }
    return lines;
}

}  // namespace top
