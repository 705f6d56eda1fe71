// FunctionName: reads the qualified name out of what the two compilers print for a function.
#include <Infra/FunctionName.h>

#include <cctype>
#include <cstring>
#include <string_view>

namespace Orvex::Infra::Detail {

namespace {

constexpr std::string_view OPERATOR = "operator";
constexpr std::string_view NO_POSITION_NAME = "(anonymous namespace)";

bool is_word(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
}

// Reads one __PRETTY_FUNCTION__ from left to right and collects the name in a buffer. What looks like a name
// is dropped again at the next blank: then it was part of the result type.
class NameReader {
public:
    NameReader(std::string_view pretty, char* name, size_t size) noexcept
        : m_rest(pretty), m_name(name), m_size(size) {}

    void read() noexcept {
        while (!m_rest.empty() && !m_complete) {
            step();
        }
        m_name[m_length] = '\0';
    }

private:
    bool starts(std::string_view text) const { return m_rest.substr(0, text.size()) == text; }

    void keep(size_t count) {
        for (; count > 0 && !m_rest.empty(); --count) {
            put(m_rest.front());
            m_rest.remove_prefix(1);
        }
    }

    void put(char c) {
        if (m_length + 1 < m_size) {
            m_name[m_length++] = c;
        }
    }

    void put(std::string_view text) {
        for (const char c : text) {
            put(c);
        }
    }

    bool last_is_word() const { return m_length > 0 && is_word(m_name[m_length - 1]); }

    void step() {
        const char c = m_rest.front();
        if (!last_is_word() && starts(OPERATOR) &&
            (m_rest.size() == OPERATOR.size() || !is_word(m_rest[OPERATOR.size()]))) {
            read_operator();
        } else if (starts("{anonymous}")) {
            put(NO_POSITION_NAME);
            m_rest.remove_prefix(std::strlen("{anonymous}"));
        } else if (starts(NO_POSITION_NAME)) {
            keep(NO_POSITION_NAME.size());
        } else if (c == '(') {
            read_parenthesis();
        } else if (c == '<') {
            skip_group('<', '>');
        } else if (starts(" (") && is_decltype()) {
            m_rest.remove_prefix(1);
        } else if (c == ' ' || c == '*' || c == '&') {
            m_length = 0;
            m_rest.remove_prefix(1);
        } else {
            keep(1);
        }
    }

    bool is_decltype() const { return std::string_view(m_name, m_length) == "decltype"; }

    // The parentheses of decltype, the opening one of a result that is a pointer to function or to member or
    // a reference to array, or the arguments of the function.
    void read_parenthesis() {
        const bool of_result = m_length == 0 && !starts("(anonymous class") && !starts("(lambda");
        if (is_decltype()) {
            skip_group('(', ')');
            m_length = 0;
        } else if (of_result) {
            m_rest.remove_prefix(1);
        } else {
            skip_group('(', ')');
            read_on_after_arguments();
        }
    }

    // After the arguments the name is complete, unless it goes on with a class inside this function. A
    // lambda keeps the name of the function around it.
    void read_on_after_arguments() {
        for (const std::string_view qualifier : {" const", " volatile", " &&", " &"}) {
            if (starts(qualifier)) {
                m_rest.remove_prefix(qualifier.size());
            }
        }
        m_complete = !starts("::") || starts("::<lambda") || starts("::(anonymous") || starts("::(lambda");
    }

    // Everything up to the arguments belongs to the name, be it a symbol, "new[]", or the type of a
    // conversion.
    void read_operator() {
        keep(OPERATOR.size());
        if (starts("()")) {
            keep(2);
        }
        int depth = 0;
        const bool symbol = !starts(" ");
        while (!m_rest.empty() && (m_rest.front() != '(' || depth > 0)) {
            const char c = m_rest.front();
            if (!symbol) {
                depth += c == '<' ? 1 : c == '>' ? -1 : 0;
            }
            if (starts(" []")) {
                m_rest.remove_prefix(1);  // One compiler's; the other writes "delete[]".
                continue;
            }
            keep(1);
        }
        skip_group('(', ')');
        read_on_after_arguments();
    }

    void skip_group(char open, char close) {
        int depth = 0;
        size_t position = 0;
        for (; position < m_rest.size(); ++position) {
            const char c = m_rest[position];
            depth += c == open ? 1 : c == close ? -1 : 0;
            if (depth == 0) {
                ++position;
                break;
            }
        }
        m_rest.remove_prefix(position);
    }

    std::string_view m_rest;
    char* const m_name;
    const size_t m_size;
    size_t m_length = 0;
    bool m_complete = false;
};

}  // namespace

FunctionName::FunctionName(const char* pretty) noexcept : m_text{} {
    NameReader(pretty != nullptr ? pretty : "", m_text, TEXT_SIZE).read();
}

}  // namespace Orvex::Infra::Detail
