// CTelnetInput: what a telnet client sends, on its way to a line: telnet filter, escape filter, line editor.
#pragma once

#include <cstdint>

namespace Orvex::Reticor {

/// The state of the telnet filter. It belongs to the one session of the process and stays as it is from one
/// client to the next: whoever hangs up in the middle of a telnet command leaves its rest to the next client.
///
/// Thread safety: guarded by the session's mutex.
extern bool g_iac_seen;         ///< The last byte was IAC.
extern int32_t g_telnet_state;  ///< One of TelnetState.
extern int32_t g_sub_count;     ///< Bytes of the present subnegotiation.

enum TelnetState : int32_t {
    TELNET_NORMAL = 0,
    TELNET_OPTION = 1,          ///< The next byte is an option's number.
    TELNET_SUBNEGOTIATION = 2,  ///< Until SE, or until it is too long.
};

/// The first stage, for one byte. False if it is part of a telnet command, or zero (telnet's CR NUL).
bool telnet_passes(unsigned char byte);

/// What a line editor needs of its session.
class CTelnetEcho_IF {
public:
    /// Sends to the client. A failure is the session's matter.
    virtual void Send(const char* data, unsigned int len) = 0;

    /// A line was ended by CR; it may be empty. False: the connection is over, nothing more is wanted of it.
    virtual bool Line(char* line) = 0;

protected:
    ~CTelnetEcho_IF() = default;
};

/// Receives into its buffer, and runs the stages over what came.
///
/// Thread safety: none; the session's mutex guards it.
class CTelnetInput {
public:
    /// Where the next bytes go, and how many have room; there is always room for one.
    char* Room() { return m_recv_buf + m_recv_len; }
    unsigned int RoomLen() const { return sizeof(m_recv_buf) - static_cast<unsigned int>(m_recv_len); }

    /// `count` bytes were put at Room(). False if Line() gave false.
    bool Process(unsigned int count, CTelnetEcho_IF& session);

private:
    bool escape_passes(unsigned char byte);
    bool edit(unsigned char byte, CTelnetEcho_IF& session);
    bool finish_line(CTelnetEcho_IF& session);

    char m_recv_buf[1024];  ///< Received and not yet consumed.
    int32_t m_recv_len = 0;
    int32_t m_esc_active = 0;  ///< Not 0 inside an escape sequence.
    int32_t m_esc_count = 0;   ///< Bytes since the ESC; 2 stands for more.
    char m_line[256];          ///< The line that is typed.
    int32_t m_line_len = 0;    ///< 255 at most.
};

}  // namespace Orvex::Reticor
