// View: the lines of the screen.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "top/Line.h"
#include "top/Model.h"
#include "top/Settings.h"
#include "top/Table.h"

namespace top {

/// How it stands with the process that is asked.
struct Contact {
    std::string target;
    std::string process;  ///< "pid 4711 shop", as far as it is known.
    std::string trouble;  ///< Why there is no answer; empty if there is one.
    double silent_s = 0;  ///< For how long there was none.
};

class View {
public:
    /// Parts of the screen, by the key that shows one alone.
    static constexpr size_t PARTS = 5;

    View(const Model& model, const Settings& settings, const Contact& contact);

    /// As they fill a screen of that size; the last line has the keys.
    std::vector<Line> screen(size_t width, size_t height) const;
    /// All of it, as wide and long as it is, or `width` wide; without the keys.
    std::vector<Line> text(size_t width) const;

    /// Lines of the part that is shown alone.
    size_t rows() const;

private:
    Line head(size_t width) const;
    Line second(size_t width) const;
    Line summary(size_t width) const;
    Line memory(size_t width) const;
    std::vector<Line> alarm_lines(size_t width, size_t most) const;
    Line keys(size_t width) const;
    std::vector<Line> help(size_t width, size_t height) const;
    std::vector<Table> tables() const;
    Table pools() const;
    Table classes() const;
    Table senders() const;
    Table buffers() const;
    Table objects() const;
    void add_body(std::vector<Line>& lines, size_t width, size_t height) const;
    bool is_wanted(const std::string& text) const;

    const Model& m_model;
    const Settings& m_settings;
    const Contact& m_contact;
    const std::vector<Alarm> m_alarms;
    const std::vector<Table> m_tables;  // a part each
};

}  // namespace top
