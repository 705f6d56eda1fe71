// JsonValue: reads JSON, as strictly as its grammar is written, into values that a test can look up.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <regex>
#include <string>
#include <vector>

namespace Orvex::Testing {

/// Numbers stay as they are written, so that none of 64 bits is rounded. Objects keep the order of their keys
/// out of account; a key that is there twice is refused.
class JsonValue {
public:
    enum class Kind { NOTHING, TRUTH, NUMBER, STRING, LIST, OBJECT };

    /// The one value that the text is; nothing if it is none.
    static std::optional<JsonValue> parse(const std::string& text) {
        Reader reader{text};
        JsonValue found;
        const bool good = reader.value(found);
        reader.blanks();
        return good && reader.at == text.size() ? std::optional<JsonValue>(found) : std::nullopt;
    }

    Kind kind() const { return m_kind; }
    /// A number as it was written; a string without its quotes and escapes; "true" or "false".
    const std::string& text() const { return m_text; }
    size_t size() const { return m_list.size() + m_members.size(); }

    /// An entry of a list, a member of an object. If there is none, the test fails, and the value is empty.
    const JsonValue& operator[](size_t place) const {
        EXPECT_LT(place, m_list.size());
        return place < m_list.size() ? m_list[place] : none();
    }
    const JsonValue& operator[](const std::string& key) const {
        const auto found = m_members.find(key);
        EXPECT_NE(m_members.end(), found) << "no member " << key;
        return found != m_members.end() ? found->second : none();
    }

    /// Whether it is that number, or that string.
    bool is(uint64_t expected) const { return m_kind == Kind::NUMBER && m_text == std::to_string(expected); }
    bool is(const std::string& expected) const { return m_kind == Kind::STRING && m_text == expected; }

private:
    struct Reader {
        const std::string& text;
        size_t at = 0;

        void blanks() {
            while (at < text.size() && std::string(" \t\r\n").find(text[at]) != std::string::npos) {
                ++at;
            }
        }
        bool take(char letter) {
            blanks();
            const bool there = at < text.size() && text[at] == letter;
            at += there ? 1 : 0;
            return there;
        }
        bool word(const std::string& expected, Kind kind, JsonValue& found) {
            if (text.compare(at, expected.size(), expected) != 0) {
                return false;
            }
            at += expected.size();
            found.m_kind = kind;
            found.m_text = expected;
            return true;
        }
        // What follows a backslash.
        bool escaped(std::string& found) {
            static const std::map<char, char> MEANT = {{'"', '"'},  {'\\', '\\'}, {'/', '/'},  {'b', '\b'},
                                                       {'f', '\f'}, {'n', '\n'},  {'r', '\r'}, {'t', '\t'}};
            const auto meant = at < text.size() ? MEANT.find(text[at]) : MEANT.end();
            if (meant != MEANT.end()) {
                found += meant->second;
                ++at;
                return true;
            }
            const std::string code = text.substr(at, 5);
            static const std::regex FORM("u00[0-9a-fA-F]{2}");  // nobody here writes others
            if (!std::regex_match(code, FORM)) {
                return false;
            }
            found += static_cast<char>(std::strtol(code.c_str() + 1, nullptr, 16));
            at += code.size();
            return true;
        }
        bool string(std::string& found) {
            if (!take('"')) {
                return false;
            }
            while (at < text.size() && text[at] != '"') {
                const char letter = text[at++];
                if (static_cast<unsigned char>(letter) < 0x20 || (letter == '\\' && !escaped(found))) {
                    return false;
                }
                found += letter != '\\' ? std::string(1, letter) : "";
            }
            return take('"');
        }
        bool number(JsonValue& found) {
            static const std::regex FORM("-?(0|[1-9][0-9]*)(\\.[0-9]+)?([eE][+-]?[0-9]+)?");
            const size_t end = text.find_first_not_of("+-.eE0123456789", at);
            found.m_kind = Kind::NUMBER;
            found.m_text = text.substr(at, end == std::string::npos ? end : end - at);
            at += found.m_text.size();
            return std::regex_match(found.m_text, FORM);
        }
        template <class Entry>
        bool list(char close, Entry entry) {
            if (take(close)) {
                return true;
            }
            do {
                if (!entry()) {
                    return false;
                }
            } while (take(','));
            return take(close);
        }
        bool object(JsonValue& found) {
            found.m_kind = Kind::OBJECT;
            return list('}', [&] {
                std::string key;
                JsonValue member;
                return string(key) && take(':') && value(member) &&
                       found.m_members.emplace(key, member).second;
            });
        }
        bool value(JsonValue& found) {
            if (take('{')) {
                return object(found);
            }
            if (take('[')) {
                found.m_kind = Kind::LIST;
                return list(']', [&] {
                    found.m_list.emplace_back();
                    return value(found.m_list.back());
                });
            }
            if (at < text.size() && text[at] == '"') {
                found.m_kind = Kind::STRING;
                return string(found.m_text);
            }
            return word("true", Kind::TRUTH, found) || word("false", Kind::TRUTH, found) ||
                   word("null", Kind::NOTHING, found) || number(found);
        }
    };

    static const JsonValue& none() {
        static const JsonValue NONE;
        return NONE;
    }

    Kind m_kind = Kind::NOTHING;
    std::string m_text;
    std::vector<JsonValue> m_list;
    std::map<std::string, JsonValue> m_members;
};

}  // namespace Orvex::Testing
