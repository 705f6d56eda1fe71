// Screen: ncurses, in the one file that sees it.
#include "top/Screen.h"

#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>

// With its macros there would be functions named move, clear and timeout.
#define NCURSES_NOMACROS 1
#define NCURSES_WIDECHAR 1
#include <curses.h>

namespace top {

namespace {

constexpr int ESCAPE_ms = 25;  // that the rest of a key's letters may take
enum Colour : short { GREEN = 1, YELLOW, RED };

int key_of(wint_t code) {
    switch (code) {
        case KEY_UP:
            return UP;
        case KEY_DOWN:
            return DOWN;
        case KEY_PPAGE:
            return PAGE_UP;
        case KEY_NPAGE:
            return PAGE_DOWN;
        case KEY_HOME:
            return TOP;
        case KEY_BACKSPACE:
            return KEY_RUB;
        case KEY_ENTER:
            return KEY_ENTER_;
        default:
            return 0;  // a key without a meaning here
    }
}

}  // namespace

bool Screen::start(std::string& wrong) {
    if (::isatty(STDIN_FILENO) == 0 || ::isatty(STDOUT_FILENO) == 0) {
        wrong = "this is not a terminal; --once and --json need none";
        return false;
    }
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGWINCH);
    ::sigprocmask(SIG_BLOCK, &set, nullptr);
    m_size_fd = ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    m_terminal = ::newterm(nullptr, stdout, stdin);
    if (m_terminal == nullptr) {
        const char* const name = std::getenv("TERM");
        wrong = "the terminal " + std::string(name != nullptr ? name : "without a name (TERM)") +
                " is not known; --once and --json need none";
        return false;
    }
    ::set_escdelay(ESCAPE_ms);
    ::cbreak();
    ::noecho();
    ::nonl();
    ::keypad(stdscr, TRUE);
    ::nodelay(stdscr, TRUE);
    ::curs_set(0);
    m_has_colours = ::has_colors() == TRUE && ::start_color() == OK && ::use_default_colors() == OK;
    if (m_has_colours) {
        ::init_pair(GREEN, COLOR_GREEN, -1);
        ::init_pair(YELLOW, COLOR_YELLOW, -1);
        ::init_pair(RED, COLOR_RED, -1);
    }
    return true;
}

Screen::~Screen() {
    if (m_terminal != nullptr) {
        ::endwin();
        ::delscreen(m_terminal);
    }
    if (m_size_fd >= 0) {
        ::close(m_size_fd);
    }
}

size_t Screen::width() const {
    return static_cast<size_t>(::getmaxx(stdscr));
}

size_t Screen::height() const {
    return static_cast<size_t>(::getmaxy(stdscr));
}

unsigned Screen::attribute_of(Style style) const {
    const auto colour = [&](short pair) {
        return m_has_colours ? static_cast<unsigned>(COLOR_PAIR(pair)) : 0;
    };
    switch (style) {
        case Style::HEAD:
            return A_REVERSE;
        case Style::TITLE:
            return A_BOLD;
        case Style::DIM:
            return m_has_colours ? A_DIM : A_NORMAL;
        case Style::GOOD:
            return colour(GREEN);
        case Style::WARN:
            return colour(YELLOW);
        case Style::BAD:
            return colour(RED) | A_BOLD;
        default:
            return A_NORMAL;
    }
}

void Screen::draw(const std::vector<Line>& lines) {
    ::erase();
    for (size_t row = 0; row < lines.size() && row < height(); ++row) {
        ::move(static_cast<int>(row), 0);
        for (const Span& span : lines[row]) {
            ::attrset(static_cast<int>(attribute_of(span.style)));
            ::addstr(span.text.c_str());
        }
    }
    ::attrset(A_NORMAL);
    ::refresh();
}

int Screen::key() {
    wint_t code = 0;
    const int kind = ::get_wch(&code);
    if (kind == ERR) {
        return NO_KEY;
    }
    if (kind == KEY_CODE_YES) {
        return key_of(code);
    }
    return code == 127 || code == 8 ? KEY_RUB : code == '\r' ? KEY_ENTER_ : static_cast<int>(code);
}

void Screen::takeSize() {
    signalfd_siginfo info;
    while (::read(m_size_fd, &info, sizeof info) == sizeof info) {
    }
    winsize size{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 && size.ws_col > 0) {
        ::resizeterm(size.ws_row, size.ws_col);
    }
}

}  // namespace top
