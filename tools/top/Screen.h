// Screen: the terminal.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "top/Line.h"

struct screen;  // of ncurses

namespace top {

/// What a key means beyond a letter: no letter has these numbers but the first two.
enum Key : int {
    NO_KEY = -1,
    KEY_ENTER_ = 10,
    KEY_ESCAPE = 27,
    KEY_RUB = 0x200000,
    UP,
    DOWN,
    PAGE_UP,
    PAGE_DOWN,
    TOP
};

/// There is one in a process. When it has gone the terminal is as it was before. What has not changed on the
/// screen is not sent again.
class Screen {
public:
    Screen() = default;
    ~Screen();
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    /// False if standard input and output are not a terminal that ncurses knows; `wrong` says why.
    bool start(std::string& wrong);

    size_t width() const;
    size_t height() const;

    void draw(const std::vector<Line>& lines);
    /// The next key that was pressed: a letter as its code point, or a Key; NO_KEY if there is none.
    int key();

    /// Readable when the size of the terminal has changed; `takeSize` then has it looked at.
    int sizeFd() const { return m_size_fd; }
    void takeSize();

private:
    unsigned attribute_of(Style style) const;

    ::screen* m_terminal = nullptr;
    int m_size_fd = -1;
    bool m_has_colours = false;
};

}  // namespace top
