// driveStrParser: turns bytes into a text and a sequence of operations, runs them on a CStrParser and on its
// model, and compares result, cursor, status, text and output buffers after each. Used by the fuzz target and
// by a test with seeded random bytes.
#pragma once

#include <Reticor/StrParser.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "support/text/StrParserModel.h"

namespace Orvex::Reticor {

/// Hands out the bytes of an input; zeros when they have run out.
class CStrParserInput {
public:
    CStrParserInput(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}
    bool empty() const { return m_size == 0; }
    uint8_t byte() {
        if (m_size == 0) {
            return 0;
        }
        --m_size;
        return *m_data++;
    }
    template <typename Value>
    Value value() {
        uint8_t bytes[sizeof(Value)];
        for (uint8_t& b : bytes) {
            b = byte();
        }
        Value result;
        memcpy(&result, bytes, sizeof result);
        return result;
    }
    std::string take(size_t n) {
        n = std::min(n, m_size);
        std::string taken(reinterpret_cast<const char*>(m_data), n);
        m_data += n;
        m_size -= n;
        return taken;
    }
    /// A text of up to 65535 bytes, NUL bytes among them.
    std::string text() { return take(value<uint16_t>()); }
    /// A short string without NUL bytes.
    std::string word() {
        std::string taken = take(byte() & 31U);
        return taken.substr(0, taken.find('\0'));
    }

private:
    const uint8_t* m_data;
    size_t m_size;
};

class CStrParserDriver {
public:
    CStrParserDriver(const uint8_t* data, size_t size) : m_input(data, size) {}

    /// Empty if parser and model agreed throughout, otherwise what they differed in.
    std::string run() {
        start();
        m_error = compare_state() ? "" : "after construction";
        while (m_error.empty() && !m_input.empty()) {
            unsigned operation = m_input.byte() % OPERATIONS;
            if (!step(operation) || !compare_state()) {
                m_error =
                    "operation " + std::to_string(operation) + " from offset " + std::to_string(m_before);
            }
        }
        delete m_parser;
        m_parser = nullptr;
        return m_error;
    }

    ~CStrParserDriver() { delete m_parser; }
    CStrParserDriver(const CStrParserDriver&) = delete;
    CStrParserDriver& operator=(const CStrParserDriver&) = delete;

    static constexpr unsigned OPERATIONS = 60;

private:
    CStrParserInput m_input;
    CStrParser* m_parser = nullptr;
    CStrParserModel m_model;
    bool m_attached = false;
    int m_before = 0;
    std::string m_error;
    unsigned char m_entries[256] = {};

    void start() {
        switch (m_input.byte() % 3) {
            case 0:
                m_parser = new CStrParser;
                break;
            case 1: {
                std::string text = m_input.text();
                m_parser = new CStrParser(text.c_str());
                m_model.attach(text.c_str());
                m_attached = true;
                break;
            }
            default: {
                std::string text = m_input.text();
                m_parser = new CStrParser(text.data(), static_cast<unsigned>(text.size()));
                m_model.attach(text);
                m_attached = true;
            }
        }
    }

    bool compare_state() const {
        const CStrParser& p = *m_parser;
        int len = p.GetStringLen();
        int offset = p.GetCurOffset();
        if (len != m_model.len() || offset != m_model.m_offset || p.GetStatus() != m_model.m_status) {
            return false;
        }
        if (offset < -1 || offset > len + 1 || (p.GetString() != nullptr) != m_attached) {
            return false;
        }
        if (!m_attached) {
            return true;
        }
        // Under the address sanitizer strlen proves that the block ends in a zero, wherever the text does.
        const std::string& wanted = m_model.m_text;
        return memcmp(p.GetString(), wanted.data(), wanted.size()) == 0 &&
               strlen(p.GetString()) >= std::min(wanted.find('\0'), wanted.size());
    }

    /// Runs both with output buffers of the same size, which the heap bounds to the byte.
    template <typename Real, typename Model>
    bool with_out(Real real, Model model) {
        unsigned size = m_input.byte();
        size = size < 200 ? size % 24 : size;
        std::vector<char> out(size, '\xA5');
        std::vector<char> wanted(size, '\xA5');
        bool none = size == 0 && m_input.byte() % 2 == 0;
        int result = real(none ? nullptr : out.data(), size);
        return result == model(none ? nullptr : wanted.data(), size) && out == wanted;
    }

    static bool same_sign(int a, int b) { return (a > 0) == (b > 0) && (a < 0) == (b < 0); }
    static bool same(double a, double b) { return memcmp(&a, &b, sizeof a) == 0; }

    const unsigned char* table() {
        memset(m_entries, 0, sizeof m_entries);
        for (char c : m_input.word()) {
            m_entries[128 + static_cast<signed char>(c)] = 1;
        }
        return m_entries + 128;
    }

    bool step(unsigned operation) {
        m_before = m_parser->GetCurOffset();
        if (operation < 16) {
            return position(operation);
        }
        if (operation < 28) {
            return search(operation);
        }
        return operation < 44 ? consume(operation) : number(operation);
    }

    bool attach(const std::string& text, bool bytes) {
        m_attached = true;
        if (bytes) {
            m_model.attach(text);
            return m_parser->Attach(text.data(), static_cast<unsigned>(text.size())) == 0;
        }
        m_model.attach(text.c_str());
        return m_parser->Attach(text.c_str()) == 0;
    }

    // A piece of the parser's own text, from an offset to wherever its terminator is.
    const char* own_text() {
        size_t offset = m_input.byte();
        offset = m_model.len() > 0 ? offset % static_cast<size_t>(m_model.len()) : 0;
        return m_parser->GetString() + offset;
    }

    bool append_own() {
        if (!m_attached || m_model.len() > 10000) {
            return true;
        }
        const char* own = own_text();
        std::string copied = own;
        return m_parser->Append(own) == m_model.append(copied);
    }

    bool attach_own() {
        if (!m_attached) {
            return true;
        }
        const char* own = own_text();
        m_model.attach(own);
        return m_parser->Attach(own) == 0;
    }

    bool position(unsigned operation) {
        CStrParser& p = *m_parser;
        CStrParserModel& m = m_model;
        switch (operation) {
            case 0:
                return attach(m_input.text(), false);
            case 1:
                return attach(m_input.text(), true);
            case 2: {
                std::string text = m_input.word();
                m_attached = true;
                return p.Append(text.c_str()) == m.append(text);
            }
            case 3:
                return append_own();
            case 4:
                return attach_own();
            case 5:
                return p.GetCurChar() == m.at(m.m_offset);
            case 6:
                return p.CheckPrevChar() == m.at(m.m_offset - 1);
            case 7:
                p.ResetAll();
                m.m_offset = m.m_status = 0;
                return true;
            case 8:
                p.ResetToLineHead();
                m.m_offset = m.line_head();
                return true;
            case 9: {
                int offset = m_input.value<int>();
                return p.LocateOffset(offset) == m.locate_offset(offset);
            }
            case 10:
            case 11: {
                int offset = m_input.value<int16_t>();
                return p.LocateOffset(offset) == m.locate_offset(offset);
            }
            case 12:
                return p.GetLineNum() == m.line_num();
            case 13:
                return p.GetCurLinelength() == m.line_length();
            default: {
                int offset = m_input.byte();
                return p.LocateOffset(offset) == m.locate_offset(offset);
            }
        }
    }

    bool search(unsigned operation) {
        CStrParser& p = *m_parser;
        CStrParserModel& m = m_model;
        char c = static_cast<char>(operation == 18 ? m_input.byte() : 0);
        std::string s = operation == 18 || operation == 19 ? "" : m_input.word();
        switch (operation) {
            case 16:
                return same_sign(p.Compare(s.c_str()), m.compare(s));
            case 17:
                return same_sign(p.CompareCase(s.c_str()), m.compare_case(s));
            case 18:
                return p.Expect(c) == m.expect(c);
            case 19:
                return p.ExpectEOL() == m.expect_eol();
            case 20:
                return p.LocateString(s.c_str()) == m.locate(s, false, false);
            case 21:
                return p.LocateStringCase(s.c_str()) == m.locate(s, false, true);
            case 22:
                return p.LocateStringInLine(s.c_str()) == m.locate(s, true, false);
            case 23:
                return p.LocateStringInLineCase(s.c_str()) == m.locate(s, true, true);
            case 24:
                return p.GetLineNumWithHead(s.c_str()) == m.line_num_with_head(s);
            case 25:
                return p.ReplaceIpAddr(s.c_str()) == m.replace_ip_addr(s);
            case 26: {
                int n = m_input.value<int16_t>();
                return p.ReplaceLength(n, s.c_str()) == m.replace_length(n, s);
            }
            default:
                return with_out([&](char* out, unsigned n) { return p.GetLineWithHead(s.c_str(), out, n); },
                                [&](char* out, unsigned n) { return m.line_with_head(s, out, n); });
        }
    }

    bool consume(unsigned operation) {
        CStrParser& p = *m_parser;
        CStrParserModel& m = m_model;
        switch (operation) {
            case 28: {
                char c = static_cast<char>(m_input.byte());
                return p.ConsumeUntil(c) == m.until([c](char here) { return here == c; });
            }
            case 29: {
                const unsigned char* t = table();
                return p.ConsumeUntil(t) ==
                       m.until([t](char c) { return t[static_cast<signed char>(c)] != 0; });
            }
            case 30:
                return p.ConsumeUntilDigit() == m.until([](char c) { return isdigit(c) != 0; });
            case 31:
                return p.ConsumeUntilHexDigit() == m.until([](char c) { return isxdigit(c) != 0; });
            case 32: {
                char c = static_cast<char>(m_input.byte());
                return p.ConsumeUntilinLine(c) == m.until_in_line(c);
            }
            case 33: {
                const unsigned char* t = table();
                return p.ConsumeUntilinLine(t) ==
                       m.until([t](char c) { return c == '\n' || t[static_cast<signed char>(c)] != 0; });
            }
            case 34:
                return p.ConsumeUntilNextLine() == m.until_next_line();
            case 35: {
                char c = static_cast<char>(m_input.byte());
                return p.GetThru(c) == m.get_thru(c);
            }
            case 36:
                return p.GetThruEOL() == m.get_thru('\n');
            case 37:
                return p.ConsumeWhitespace() == m.whitespace(false);
            case 38:
                return p.ConsumeWhitespaceInLine() == m.whitespace(true);
            case 39:
                return with_out([&](char* out, unsigned n) { return p.ConsumeWord(out, n); },
                                [&](char* out, unsigned n) { return m.word(out, n); });
            case 40:
            case 41: {
                unsigned count = operation == 40 ? m_input.byte() : m_input.value<unsigned>();
                return with_out([&](char* out, unsigned n) { return p.ConsumeLength(count, out, n); },
                                [&](char* out, unsigned n) { return m.length(count, out, n); });
            }
            default: {
                std::string delims = m_input.word();
                return with_out(
                    [&](char* out, unsigned n) { return p.ConsumeSentence(delims.c_str(), out, n); },
                    [&](char* out, unsigned n) { return m.sentence(delims, out, n); });
            }
        }
    }

    bool number(unsigned operation) {
        CStrParser& p = *m_parser;
        CStrParserModel& m = m_model;
        switch (operation) {
            case 44:
                return p.ConsumeInt64() == m.consume("%lld", -1LL);
            case 45:
                return p.ConsumeInt32() == static_cast<int>(m.consume("%lld", -1LL));
            case 46:
                return p.ConsumeInt16() == static_cast<short>(m.consume("%lld", -1LL));
            case 47:
                return p.ConsumeUint64() == m.consume("%llu", 0ULL);
            case 48:
                return p.ConsumeUint32() == static_cast<unsigned>(m.consume("%llu", 0ULL));
            case 49:
                return p.ConsumeUint16() == static_cast<unsigned short>(m.consume("%llu", 0ULL));
            case 50:
                return same(p.ConsumeDouble(), m.consume_double());
            case 51:
                return same(static_cast<double>(p.ConsumeFloat()),
                            static_cast<double>(static_cast<float>(m.consume_double())));
            case 52:
                return p.ConsumeHexUint32() == m.consume_hex();
            case 53: {
                int family = 0;
                int* wanted = m_input.byte() % 2 != 0 ? &family : nullptr;
                bool agreed = with_out([&](char* out, unsigned n) { return p.ConsumeIpAddr(out, n, wanted); },
                                       [&](char* out, unsigned n) { return m.ip_addr(out, n); });
                return agreed && (family == 0 || family == -1 || family == 4 || family == 6);
            }
            case 54:
            case 55:
            case 56:
                return replace_integer(operation);
            case 57: {
                float value = m_input.value<float>();
                return p.ReplaceFloat(value) == m.replace_number("%f", static_cast<double>(value));
            }
            case 58: {
                double value = m_input.value<double>();
                return p.ReplaceDouble(value) == m.replace_number("%f", value);
            }
            default:
                return with_out([&](char* out, unsigned n) { return p.ConsumeIpAddr(out, n, nullptr); },
                                [&](char* out, unsigned n) { return m.ip_addr(out, n); });
        }
    }

    bool replace_integer(unsigned operation) {
        auto value = m_input.value<unsigned long long>() >> (m_input.byte() % 64);
        CStrParser& p = *m_parser;
        CStrParserModel& m = m_model;
        auto i64 = static_cast<long long>(value);
        switch (operation == 54 ? m_input.byte() % 6 : operation) {
            case 0:
                return p.ReplaceInt32(static_cast<int>(value)) ==
                       m.replace_number("%d", static_cast<int>(value));
            case 1:
                return p.ReplaceInt16(static_cast<short>(value)) ==
                       m.replace_number("%d", static_cast<int>(static_cast<short>(value)));
            case 2:
                return p.ReplaceUint32(static_cast<unsigned>(value)) ==
                       m.replace_number("%u", static_cast<unsigned>(value));
            case 3:
                return p.ReplaceUint16(static_cast<unsigned short>(value)) ==
                       m.replace_number("%u", static_cast<unsigned>(static_cast<unsigned short>(value)));
            case 55:
                return p.ReplaceUint64(value) == m.replace_number("%llu", value);
            default:
                return p.ReplaceInt64(i64) == m.replace_number("%lld", i64);
        }
    }
};

inline std::string driveStrParser(const uint8_t* data, size_t size) {
    return CStrParserDriver(data, size).run();
}

}  // namespace Orvex::Reticor
