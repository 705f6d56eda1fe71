// CWINPipe: a connected pair of loopback TCP sockets, by which a blocked wait is ended.
#pragma once

namespace Orvex::Reticor {

/// The two ends, -1 where one is absent. Whoever holds the structure owns them: nothing is closed by itself.
struct CWINPipe {
    int m_read_fd = -1;
    int m_write_fd = -1;

    /// Builds the pair, within two seconds; on failure everything that was opened is closed again.
    bool CreatePipe(bool block);

    /// recv: the bytes read; 0 for nothing now; -1, with a line unless the peer reset, for the end or an
    /// error.
    static int Read(int fd, char* buf, int len);

    /// send: the bytes written; 0 for no room now; -1 with a line.
    static int Write(int fd, const char* buf, int len);

    static bool Close(int fd);
};

}  // namespace Orvex::Reticor
