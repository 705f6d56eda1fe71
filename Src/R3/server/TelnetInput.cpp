// The three stages from a telnet client's bytes to lines.
#include "R3/server/TelnetInput.h"

#include <cstring>

namespace Orvex::Reticor {

bool g_iac_seen = false;
int32_t g_telnet_state = TELNET_NORMAL;
int32_t g_sub_count = 0;

namespace {

// RFC 854.
constexpr unsigned char IAC = 0xFF;
constexpr unsigned char SE = 0xF0;
constexpr unsigned char SB = 0xFA;
constexpr unsigned char WILL = 0xFB;
constexpr unsigned char DONT = 0xFE;

/// A subnegotiation without an end must not swallow the session.
constexpr int32_t SUBNEGOTIATION_LIMIT = 100;

constexpr unsigned char BACKSPACE = 0x08;
constexpr unsigned char CR = 0x0D;
constexpr unsigned char ESC = 0x1B;
constexpr unsigned char DEL = 0x7F;

constexpr int32_t LINE_LIMIT = 255;

/// The byte after IAC. All else than these, a second IAC too, has no meaning here.
void take_command(unsigned char command) {
    g_iac_seen = false;
    if (command == SB) {
        g_telnet_state = TELNET_SUBNEGOTIATION;
        g_sub_count = 0;
    } else if (command >= WILL && command <= DONT) {
        g_telnet_state = TELNET_OPTION;
    } else {
        static_assert(SE < SB, "SE is one of those that end whatever was open");
        g_telnet_state = TELNET_NORMAL;
    }
}

}  // namespace

bool telnet_passes(unsigned char byte) {
    if (g_iac_seen) {
        take_command(byte);
        return false;
    }
    if (byte == IAC) {
        g_iac_seen = true;
        return false;
    }
    if (g_telnet_state == TELNET_OPTION) {
        g_telnet_state = TELNET_NORMAL;
        return false;
    }
    if (g_telnet_state == TELNET_SUBNEGOTIATION) {
        if (++g_sub_count == SUBNEGOTIATION_LIMIT) {
            g_telnet_state = TELNET_NORMAL;
        }
        return false;
    }
    return byte != 0;
}

// The byte after ESC is consumed whatever it is, then digits, then the one that ends the sequence.
bool CTelnetInput::escape_passes(unsigned char byte) {
    if (byte == ESC) {
        m_esc_active = 1;
        return false;
    }
    if (m_esc_active != 0) {
        const bool first = m_esc_count == 0;
        m_esc_count = first ? 1 : 2;
        if (!first && (byte < '0' || byte > '9')) {
            m_esc_active = 0;
            m_esc_count = 0;
        }
        return false;
    }
    return byte == BACKSPACE || byte == CR || (byte >= ' ' && byte <= DEL);
}

bool CTelnetInput::edit(unsigned char byte, CTelnetEcho_IF& session) {
    if (byte == CR) {
        return finish_line(session);
    }
    if (byte == BACKSPACE || byte == DEL) {
        if (m_line_len > 0) {
            session.Send("\x08 \x08", 3);
            m_line[--m_line_len] = '\0';
        }
        return true;
    }
    if (m_line_len < LINE_LIMIT) {
        const char letter = static_cast<char>(byte);
        session.Send(&letter, 1);
        m_line[m_line_len++] = letter;
    }
    return true;
}

bool CTelnetInput::finish_line(CTelnetEcho_IF& session) {
    session.Send("\r\n", 2);
    m_line[m_line_len] = '\0';
    const bool goes_on = session.Line(m_line);
    m_line_len = 0;
    return goes_on;
}

bool CTelnetInput::Process(unsigned int count, CTelnetEcho_IF& session) {
    m_recv_len += static_cast<int32_t>(count);
    for (int32_t i = 0; i < m_recv_len; ++i) {
        const unsigned char byte = static_cast<unsigned char>(m_recv_buf[i]);
        if (telnet_passes(byte) && escape_passes(byte) && !edit(byte, session)) {
            return false;
        }
    }
    m_recv_len = 0;
    return true;
}

}  // namespace Orvex::Reticor
