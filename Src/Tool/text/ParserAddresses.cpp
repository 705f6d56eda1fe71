// ParserAddresses: dotted quads, literals in brackets or bare, names.
#include "Tool/text/ParserAddresses.h"

#include <netinet/in.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>

#include "Socket/address/IpLiteral.h"
#include "Tool/text/ParserBytes.h"

namespace Orvex::Reticor {

namespace {

/// `out` of `take` is at least this long, and `replace` works with this much.
constexpr unsigned SHORTEST_OUT = 7;
constexpr unsigned REPLACED_OUT = 128;
/// Longer than any address with the longest name of an interface as its scope.
constexpr unsigned LONGEST_LITERAL = 255;

/// A cursor of its own over what is left, and the buffer to be filled.
struct Reader {
    const char* at;
    const char* end;
    char* out;
    unsigned out_len;

    bool is(char c) const { return at != end && *at == c; }
    void put(const char* from, size_t n) const { memcpy(out, from, std::min<size_t>(n, out_len)); }
};

bool is_address_char(char c) {
    return hex_value(c) >= 0 || c == ':' || c == '.' || c == '%';
}

/// A number as scanf's "%d" takes it: blanks, a sign, digits. What is too wide for 64 bits saturates, and is
/// then cut to 32.
bool scan_int(Reader& in, int& value) {
    in.at = std::find_if_not(in.at, in.end, is_blank);
    bool minus = in.is('-');
    if (minus || in.is('+')) {
        ++in.at;
    }
    if (in.at == in.end || !is_digit(*in.at)) {
        return false;
    }
    const unsigned long long limit = static_cast<unsigned long long>(LLONG_MAX) + (minus ? 1 : 0);
    unsigned long long sum = 0;
    for (; in.at != in.end && is_digit(*in.at); ++in.at) {
        unsigned digit = static_cast<unsigned>(*in.at - '0');
        sum = sum > (limit - digit) / 10 ? limit : sum * 10 + digit;
    }
    value = static_cast<int>(minus ? 0 - sum : sum);
    return true;
}

/// Four numbers with points between them; the cursor passes the digits and points that stand at its start,
/// which are none if a blank or a sign comes first.
bool take_quad(Reader& in) {
    Reader scan = in;
    int field[4];
    for (int i = 0; i < 4; ++i) {
        if (i > 0 && !scan.is('.')) {
            return false;
        }
        scan.at += i > 0 ? 1 : 0;
        if (!scan_int(scan, field[i])) {
            return false;
        }
    }
    char text[64];
    int n = snprintf(text, sizeof text, "%d.%d.%d.%d", field[0], field[1], field[2], field[3]);
    in.put(text, static_cast<size_t>(n));
    in.at = std::find_if_not(in.at, in.end, [](char c) { return is_digit(c) || c == '.'; });
    return true;
}

bool take_bracketed(Reader& in) {
    const char* body = in.at + 1;
    const char* close = std::find_if_not(body, in.end, is_address_char);
    if (close == in.end || *close != ']' || close == body) {
        return false;
    }
    in.put(body, static_cast<size_t>(close - body));
    in.at = close + 1;
    return true;
}

/// An address needs a ':' among what fits `out`; otherwise the run is the beginning of a name, and whatever
/// of it was put there is overwritten by that.
bool take_bare(Reader& in) {
    const char* stop = std::find_if_not(in.at, in.end, is_address_char);
    in.put(in.at, static_cast<size_t>(stop - in.at));
    if (memchr(in.out, ':', in.out_len) == nullptr) {
        return false;
    }
    in.at = stop;
    return true;
}

bool take_name(Reader& in) {
    const char* stop = std::find_if_not(in.at, in.end, [](char c) { return is_word(c) && c != ':'; });
    if (stop == in.at) {
        return false;
    }
    in.put(in.at, static_cast<size_t>(stop - in.at));
    in.at = stop;
    return true;
}

/// What the address classes would make of a literal. They would ask a name server for anything else, which
/// must not happen to a text from a stranger. The system's reader of literals knows scopes, inet_pton does
/// not.
int family_of(const char* text, size_t len) {
    char literal[LONGEST_LITERAL + 1];
    if (len >= sizeof literal) {
        return -1;
    }
    memcpy(literal, text, len);
    literal[len] = '\0';
    sockaddr_in6 ipv6;
    if (parse_ipv6_literal(literal, ipv6)) {
        return IN6_IS_ADDR_V4MAPPED(&ipv6.sin6_addr) ? 4 : 6;
    }
    in_addr ipv4;
    return parse_ipv4_literal(literal, ipv4) ? 4 : -1;
}

}  // namespace

int ParserAddresses::take(char* out, unsigned out_len, int* family) {
    if (out == nullptr || out_len < SHORTEST_OUT || m_text.left() == 0) {
        return -1;
    }
    memset(out, 0, out_len);
    Reader in{m_text.here(), m_text.end_of_left(), out, out_len};
    bool taken = take_quad(in);
    if (!taken) {
        taken = in.is('[') ? take_bracketed(in) : take_bare(in) || take_name(in);
    }
    if (!taken) {
        return -1;
    }
    m_text.move_to(in.at);
    const size_t len = strnlen(out, out_len);
    if (family != nullptr) {
        *family = family_of(out, len);
    }
    return static_cast<int>(len);
}

int ParserAddresses::replace(const char* s) {
    if (s == nullptr) {
        return -1;
    }
    const int start = m_text.offset();
    char address[REPLACED_OUT];
    const int len = take(address, sizeof address, nullptr);
    m_text.set_offset(start);
    return len == -1 ? -1 : m_text.replace(start, start + len - 1, s);
}

}  // namespace Orvex::Reticor
