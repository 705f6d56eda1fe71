// Credentials: words, quoted strings, and the arguments of a query.

#include "media_relay/http/Credentials.h"

#include <algorithm>
#include <charconv>

namespace relay {

namespace {

constexpr size_t MOST_PARAMETERS = 32;

size_t skipBlanks(const std::string& text, size_t at) {
    return std::min(text.find_first_not_of(" \t", at), text.size());
}

std::string takeWord(const std::string& text, size_t& at) {
    const size_t end = std::min(text.find_first_of(" \t,=\"", at), text.size());
    const std::string word = text.substr(at, end - at);
    at = end;
    return word;
}

/// From the quotation mark at the cursor to the one that ends it. False without one.
bool takeQuoted(const std::string& text, size_t& at, std::string& value) {
    for (++at; at < text.size() && text[at] != '"'; ++at) {
        at += text[at] == '\\' ? 1 : 0;
        if (at == text.size()) {
            return false;
        }
        value += text[at];
    }
    return at++ < text.size();
}

/// name=value or name="value".
bool takeParameter(const std::string& text, size_t& at, Credentials& credentials) {
    const std::string name = inSmallLetters(takeWord(text, at));
    at = skipBlanks(text, at);
    if (name.empty() || at == text.size() || text[at] != '=') {
        return false;
    }
    at = skipBlanks(text, at + 1);
    std::string value;
    if (at < text.size() && text[at] == '"') {
        if (!takeQuoted(text, at, value)) {
            return false;
        }
    } else {
        value = takeWord(text, at);
    }
    at = skipBlanks(text, at);
    return credentials.parameters.size() < MOST_PARAMETERS &&
           credentials.parameters.emplace(name, value).second;
}

std::string decode(const std::string& text) {
    std::string decoded;
    for (size_t at = 0; at < text.size(); ++at) {
        unsigned char byte = 0;
        const char* const digits = text.data() + at + 1;
        if (text[at] == '%' && at + 2 < text.size() &&
            std::from_chars(digits, digits + 2, byte, 16).ptr == digits + 2) {
            decoded += static_cast<char>(byte);
            at += 2;
        } else {
            decoded += text[at];
        }
    }
    return decoded;
}

}  // namespace

bool parseCredentials(const std::string& text, Credentials& credentials) {
    credentials = Credentials();
    size_t at = 0;
    credentials.scheme = inSmallLetters(takeWord(text, at));
    at = skipBlanks(text, at);
    if (credentials.scheme.empty()) {
        return false;
    }
    if (credentials.scheme == "bearer") {
        credentials.token = text.substr(at);
        return !credentials.token.empty();
    }
    bool good = true;
    while (good && at < text.size()) {
        good = takeParameter(text, at, credentials) && (at == text.size() || text[at] == ',');
        at = std::min(text.find_first_not_of(" \t,", at), text.size());
    }
    return good;
}

std::string findArgument(const std::string& query, const std::string& name) {
    for (size_t at = 0; at < query.size();) {
        const size_t end = std::min(query.find('&', at), query.size());
        if (query.compare(at, name.size() + 1, name + "=") == 0) {
            const size_t value = at + name.size() + 1;
            return decode(query.substr(value, end - value));
        }
        at = end + 1;
    }
    return "";
}

}  // namespace relay
