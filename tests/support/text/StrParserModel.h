// CStrParserModel: the parser's operations written the plain way, on a std::string, with the C library's own
// formatted input and output. What the real one does by quicker means is compared with it.
#pragma once

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <locale>
#include <sstream>
#include <string>

namespace Orvex::Reticor {

class CStrParserModel {
public:
    std::string m_text;
    int m_offset = 0;
    int m_status = 0;

    void attach(const std::string& text) {
        m_text = text;
        m_offset = m_status = 0;
    }
    int append(const std::string& text) {
        m_text += text;
        return len();
    }
    int len() const { return static_cast<int>(m_text.size()); }
    bool inside(int index) const { return index >= 0 && index < len(); }
    char at(int index) const { return inside(index) ? m_text[static_cast<size_t>(index)] : '\0'; }
    std::string rest() const { return inside(m_offset) ? m_text.substr(static_cast<size_t>(m_offset)) : ""; }
    int left() const { return static_cast<int>(rest().size()); }

    // Position.

    int locate_offset(int offset) {
        m_offset = offset >= len() ? len() - 1 : offset;
        m_offset = offset < 0 ? 0 : m_offset;
        return m_offset;
    }
    int line_num() const { return static_cast<int>(std::count(m_text.begin(), m_text.end(), '\n')); }
    int line_head() const {
        if (m_offset == 0) {
            return 0;
        }
        int i = at(m_offset) == '\n' ? m_offset - 1 : m_offset;
        for (; i >= 0; --i) {
            if (at(i) == '\n') {
                return i + 1 < len() ? i + 1 : i;
            }
        }
        return 0;
    }
    int line_tail() const {
        for (int i = m_offset; inside(i); ++i) {
            if (at(i) == '\n') {
                return i;
            }
        }
        return len() - 1;
    }
    unsigned line_length() const {
        int head = line_head();
        int tail = line_tail();
        int length = at(tail) == '\n' ? tail - head : len() - head;
        if (at(tail) == '\n' && length > 0 && at(tail - 1) == '\r') {
            --length;
        }
        return static_cast<unsigned>(length);
    }

    // Compare, expect, search.

    int compare(const std::string& s) const {
        return left() < static_cast<int>(s.size()) ? -1 : strncmp(rest().c_str(), s.c_str(), s.size());
    }
    int compare_case(const std::string& s) const {
        return left() < static_cast<int>(s.size()) ? -1 : strncasecmp(rest().c_str(), s.c_str(), s.size());
    }
    int expect(char c) { return left() > 0 && at(m_offset) == c ? ++m_offset : -1; }
    int expect_eol() {
        int saved = m_offset;
        if (left() == 0) {
            return -1;
        }
        m_offset += at(m_offset) == '\r' ? 1 : 0;
        if (left() == 0) {
            return -1;
        }
        if (at(m_offset) == '\n') {
            return ++m_offset;
        }
        m_offset = saved;
        return -1;
    }
    int locate(const std::string& s, bool in_line, bool any_case) {
        int to = in_line ? line_tail() + 1 : len();
        int n = static_cast<int>(s.size());
        for (int i = m_offset; n > 0 && m_offset >= 0 && i + n <= to; ++i) {
            bool same = true;
            for (int k = 0; k < n && same; ++k) {
                int a = at(i + k);
                int b = s[static_cast<size_t>(k)];
                same = any_case ? upper(a) == upper(b) : a == b;
            }
            if (same) {
                return m_offset = i;
            }
        }
        return -1;
    }

    // Passing bytes. `stop` says where; -1 if the text ends first.

    template <typename Stop>
    int until(Stop stop) {
        for (int i = m_offset; inside(i); ++i) {
            if (stop(at(i))) {
                int passed = i - m_offset;
                m_offset = i;
                return passed;
            }
        }
        return -1;
    }
    int until_in_line(char c) {
        int saved = m_offset;
        int passed = until([c](char here) { return here == c || here == '\n'; });
        if (passed != -1 && at(m_offset) != c) {
            m_offset = saved;
            return -1;
        }
        return passed;
    }
    int until_next_line() {
        int passed = until([](char c) { return c == '\n'; });
        if (passed == -1) {
            return -1;
        }
        if (m_offset == len() - 1) {
            return m_offset;
        }
        ++m_offset;
        return passed + 1;
    }
    int get_thru(char c) {
        int saved = m_offset;
        if (until([c](char here) { return here == c; }) == -1) {
            return -1;
        }
        m_offset = m_offset + 1 == len() ? len() - 1 : m_offset + 1;
        return m_offset - saved;
    }

    // Blanks and words.

    int whitespace(bool in_line) {
        int start = m_offset;
        while (inside(m_offset) && isspace(at(m_offset)) != 0 &&
               !(in_line && (at(m_offset) == '\r' || at(m_offset) == '\n'))) {
            ++m_offset;
        }
        return m_offset - start;
    }
    int word(char* out, unsigned out_len) {
        int start = m_offset;
        while (inside(m_offset) && at(m_offset) >= 33 && at(m_offset) <= 126) {
            ++m_offset;
        }
        return copy(start, m_offset - start, out, out_len);
    }
    int length(unsigned n, char* out, unsigned out_len) {
        int start = m_offset;
        for (unsigned i = 0; i < n && inside(m_offset); ++i) {
            ++m_offset;
        }
        return copy(start, m_offset - start, out, out_len);
    }
    int sentence(const std::string& delims, char* out, unsigned out_len) {
        if (m_offset > len()) {
            return -1;
        }
        int start = m_offset;
        while (inside(m_offset) && delims.find(at(m_offset)) == std::string::npos) {
            ++m_offset;
        }
        int count = m_offset - start;
        m_offset += inside(m_offset) ? 1 : 0;
        if (count >= 1) {
            copy(start, count, out, out_len);
        }
        return count;
    }

    // Lines by head.

    int find_line(const std::string& head) {
        bool candidate = m_offset == 0;
        m_offset -= m_offset > 1 ? 1 : 0;
        while (left() > 0) {
            int before = m_offset;
            if (!candidate && get_thru('\n') == -1) {
                return -1;
            }
            if (left() < static_cast<int>(head.size())) {
                return -1;
            }
            if (compare(head) == 0) {
                return m_offset;
            }
            if (!candidate && m_offset == before) {
                return -1;
            }
            candidate = false;
        }
        return -1;
    }
    int line_with_head(const std::string& head, char* out, unsigned out_len) {
        int saved = m_offset;
        int start = find_line(head);
        if (start == -1) {
            m_offset = saved;
            return -1;
        }
        int tail = line_tail();
        m_offset = tail < len() - 1 ? tail + 1 : tail;
        if (out == nullptr || out_len == 0) {
            return 0;
        }
        tail -= at(tail) == '\n' ? 1 : 0;
        tail -= at(tail) == '\r' && tail - 1 >= 0 ? 1 : 0;
        return copy(start, std::max(tail - start + 1, 0), out, out_len);
    }
    int line_num_with_head(const std::string& head) {
        int saved = m_offset;
        int count = 0;
        int last = -1;
        for (int start = find_line(head); start > last; start = find_line(head)) {
            ++count;
            last = start;
            int tail = line_tail();
            m_offset = tail < len() - 1 ? tail + 1 : tail;
        }
        m_offset = saved;
        return count;
    }

    // Numbers.

    int digital_end() const {
        if (left() == 0) {
            return -1;
        }
        int i = m_offset + (at(m_offset) == '-' ? 1 : 0);
        int digits = 0;
        int points = 0;
        for (; inside(i); ++i) {
            if (isdigit(at(i)) != 0) {
                ++digits;
            } else if (at(i) == '.' && digits > 0 && points == 0) {
                ++points;
            } else {
                int last = at(i - 1) == '.' ? i - 2 : i - 1;
                return digits == 0 ? -1 : last;
            }
        }
        return len();
    }
    std::string number() const {
        int last = digital_end();
        return last == -1 ? "" : rest().substr(0, static_cast<size_t>(last - m_offset + 1));
    }
    template <typename Value>
    Value consume(const char* format, Value failure) {
        Value value = failure;
        m_status = -1;
        if (sscanf(number().c_str(), format, &value) != 1) {
            return failure;
        }
        m_status = 0;
        m_offset = digital_end() + 1;
        return value;
    }
    double consume_double() {
        std::istringstream stream(number());
        stream.imbue(std::locale::classic());
        double value = 0.0;
        m_status = -1;
        if (!(stream >> value)) {
            return -1.0;
        }
        m_status = 0;
        m_offset = digital_end() + 1;
        return value;
    }
    unsigned consume_hex() {
        m_status = left() == 0 ? -1 : 0;
        unsigned value = 0;
        for (; inside(m_offset) && isxdigit(at(m_offset)) != 0; ++m_offset) {
            const char digit[] = {at(m_offset), '\0'};
            value = value * 16 + static_cast<unsigned>(strtoul(digit, nullptr, 16));
        }
        return value;
    }

    // Addresses, without the family.

    int ip_addr(char* out, unsigned out_len) {
        if (out == nullptr || out_len < 7 || left() == 0) {
            return -1;
        }
        std::fill(out, out + out_len, '\0');
        int f[4];
        if (sscanf(rest().c_str(), "%d.%d.%d.%d", &f[0], &f[1], &f[2], &f[3]) == 4) {
            char quad[64];
            snprintf(quad, sizeof quad, "%d.%d.%d.%d", f[0], f[1], f[2], f[3]);
            put(quad, out, out_len);
            m_offset = span(m_offset, [](char c) { return isdigit(c) != 0 || c == '.'; });
        } else if (at(m_offset) == '[') {
            int close = span(m_offset + 1, address_char);
            if (at(close) != ']' || close == m_offset + 1) {
                return -1;
            }
            put(between(m_offset + 1, close), out, out_len);
            m_offset = close + 1;
        } else if (int end = span(m_offset, address_char);
                   between(m_offset, end).substr(0, out_len).find(':') != std::string::npos) {
            put(between(m_offset, end), out, out_len);
            m_offset = end;
        } else {
            int stop = span(m_offset, [](char c) { return c >= 33 && c <= 126 && c != ':'; });
            put(between(m_offset, stop), out, out_len);
            if (stop == m_offset) {
                return -1;
            }
            m_offset = stop;
        }
        return *out == '\0' ? -1 : static_cast<int>(strnlen(out, out_len));
    }

    // Replacement.

    int replace(int start, int end, const std::string& s) {
        if (start < 0 || end >= len()) {
            return -1;
        }
        int old = end - start + 1;
        m_text.replace(static_cast<size_t>(start), static_cast<size_t>(old), s);
        int n = static_cast<int>(s.size());
        if (n > old && m_text.back() != '\n') {
            m_text += "\r\n";
        }
        return n;
    }
    template <typename Value>
    int replace_number(const char* format, Value value) {
        char digits[400];
        snprintf(digits, sizeof digits, format, value);
        digits[255] = '\0';
        int end = digital_end();
        return end == -1 ? -1 : replace(m_offset, end, digits);
    }
    int replace_ip_addr(const std::string& s) {
        int saved = m_offset;
        char address[128];
        int n = ip_addr(address, sizeof address);
        m_offset = saved;
        return n == -1 ? -1 : replace(saved, saved + n - 1, s);
    }
    int replace_length(int n, const std::string& s) {
        for (int i = 0; i < n && inside(m_offset); ++i, ++m_offset) {
            size_t k = static_cast<size_t>(i);
            m_text[static_cast<size_t>(m_offset)] = k < s.size() ? s[k] : ' ';
        }
        return m_offset;
    }

private:
    static int upper(int c) { return c >= 0 ? toupper(c) : c; }
    static bool address_char(char c) { return isxdigit(c) != 0 || c == ':' || c == '.' || c == '%'; }
    template <typename Wanted>
    int span(int from, Wanted wanted) const {
        while (inside(from) && wanted(at(from))) {
            ++from;
        }
        return from;
    }
    std::string between(int from, int to) const {
        return inside(from) ? m_text.substr(static_cast<size_t>(from), static_cast<size_t>(to - from)) : "";
    }
    static void put(const std::string& s, char* out, unsigned out_len) {
        memcpy(out, s.data(), std::min<size_t>(s.size(), out_len));
    }
    int copy(int start, int n, char* out, unsigned out_len) const {
        if (out != nullptr && out_len > 0) {
            size_t cut = std::min<size_t>(static_cast<size_t>(n), out_len - 1);
            std::string copied = inside(start) ? m_text.substr(static_cast<size_t>(start), cut) : "";
            memcpy(out, copied.c_str(), copied.size() + 1);
        }
        return n;
    }
};

}  // namespace Orvex::Reticor
