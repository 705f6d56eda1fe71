// TelnetModel: the rules of a telnet client's input told a second time, on strings. driveTelnet: runs a
// byte-coded sequence of pieces through the library's stages and through the model.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "R3/server/CommandLine.h"
#include "R3/server/TelnetInput.h"

namespace Orvex::Testing {

class TelnetModel {
public:
    std::string echoed;
    std::vector<std::string> lines;
    bool over = false;

    void take(const std::string& bytes) {
        for (const char byte : bytes) {
            if (!over) {
                telnet(static_cast<unsigned char>(byte));
            }
        }
    }

private:
    void telnet(unsigned char byte) {
        if (m_after_iac) {
            m_after_iac = false;
            const bool option = byte >= 251 && byte <= 254;
            m_swallow = byte == 250 ? 100 : option ? 1 : 0;
        } else if (byte == 255) {
            m_after_iac = true;
        } else if (m_swallow > 0) {
            --m_swallow;
        } else if (byte != 0) {
            escape(byte);
        }
    }

    void escape(unsigned char byte) {
        if (byte == 27) {
            m_escape = m_escape.empty() ? "E" : m_escape;
        } else if (m_escape == "E") {
            m_escape = "E[";
        } else if (!m_escape.empty()) {
            m_escape = std::strchr("0123456789", byte) != nullptr ? m_escape : "";
        } else if (byte == 8 || byte == 127) {
            rubOut();
        } else if (byte == 13) {
            finish();
        } else if (byte >= 32 && byte < 127 && m_line.size() < 255) {
            m_line += static_cast<char>(byte);
            echoed += static_cast<char>(byte);
        }
    }

    void rubOut() {
        if (!m_line.empty()) {
            m_line.pop_back();
            echoed += "\b \b";
        }
    }

    void finish() {
        echoed += "\r\n";
        lines.push_back(m_line);
        over = m_line == "bye";
        m_line.clear();
    }

    bool m_after_iac = false;
    int m_swallow = 0;     // bytes of an option or of a subnegotiation that are still to go
    std::string m_escape;  // "E" after an ESC, "E[" after the byte that follows
    std::string m_line;
};

/// What the words of a line are: empty for no word; else the first, and the ten numbers.
inline std::string modelOfCommand(const std::string& line) {
    std::vector<std::string> words(1);
    for (const char letter : line) {
        if (letter > 32 && letter < 127) {
            words.back() += letter;
        } else if (!words.back().empty()) {
            words.emplace_back();
        }
    }
    if (words[0].empty()) {
        return "";
    }
    words.resize(11);
    std::string shown = words[0];
    for (size_t i = 1; i < words.size(); ++i) {
        const std::string& word = words[i];
        const std::string digits = word.substr(word[0] == '-' ? 1 : 0);
        long value = 0xBCBCBCBC;
        if (digits.find_first_not_of("0123456789") == std::string::npos) {
            value = 0;
            for (const char digit : digits) {
                const bool beyond = __builtin_mul_overflow(value, 10L, &value) ||
                                    __builtin_sub_overflow(value, digit - '0', &value);
                if (beyond) {
                    value = INT64_MIN;
                    break;
                }
            }
            if (word[0] != '-') {
                value = value == INT64_MIN ? INT64_MAX : -value;
            }
        }
        shown += " " + std::to_string(static_cast<int>(value));
    }
    return shown;
}

/// The library's stages, with what they echo and the lines that they give.
class TelnetStages : public Reticor::CTelnetEcho_IF {
public:
    std::string echoed;
    std::vector<std::string> lines;
    bool over = false;
    std::string difference;

    void take(const std::string& bytes) {
        for (size_t at = 0; at < bytes.size() && !over;) {
            const std::string piece = bytes.substr(at, m_input.RoomLen());
            if (piece.empty()) {
                difference = "no room";
                return;
            }
            std::memcpy(m_input.Room(), piece.data(), piece.size());
            over = !m_input.Process(static_cast<unsigned int>(piece.size()), *this);
            at += piece.size();
        }
    }

    void Send(const char* data, unsigned int len) override { echoed.append(data, len); }

    bool Line(char* line) override {
        lines.emplace_back(line);
        const Reticor::CommandLine split = Reticor::split_command_line(line);
        std::string shown = split.word != nullptr ? split.word : "";
        for (const int argument : split.arguments) {
            shown += shown.empty() ? "" : " " + std::to_string(argument);
        }
        if (shown != modelOfCommand(lines.back())) {
            difference = "words of '" + lines.back() + "': " + shown;
        }
        return lines.back() != "bye";
    }

private:
    Reticor::CTelnetInput m_input;
};

/// Each piece is a length and as many bytes; 255 is the longest piece that there is room for. What differs
/// between library and model; empty if nothing does. However the bytes end, the input comes to its senses
/// after them: a subnegotiation and an escape sequence further on a line is a line, and "bye" is heard.
inline std::string driveTelnet(const uint8_t* data, size_t size) {
    Reticor::g_iac_seen = false;
    Reticor::g_telnet_state = Reticor::TELNET_NORMAL;
    Reticor::g_sub_count = 0;
    TelnetStages stages;
    TelnetModel model;
    const auto take = [&](const std::string& bytes) {
        stages.take(bytes);
        model.take(bytes);
    };
    for (size_t at = 0; at < size;) {
        const size_t wanted = data[at] == 255 ? 1024 : data[at];
        const size_t count = wanted < size - at - 1 ? wanted : size - at - 1;
        take(std::string(reinterpret_cast<const char*>(data) + at + 1, count));
        at += count + 1;
    }
    take(std::string(103, 'x') + "\r");
    take("bye\r");
    if (!stages.over) {
        return "the input is swallowed for ever";
    }
    if (stages.echoed != model.echoed || stages.lines != model.lines || stages.over != model.over) {
        return "echo or lines";
    }
    return stages.difference;
}

}  // namespace Orvex::Testing
