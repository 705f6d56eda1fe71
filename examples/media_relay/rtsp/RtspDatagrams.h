// RtspDatagrams: the two sockets that all datagrams of RTP leave by, and reports come in by.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <Infra/Mutex.h>
#include <Reticor/SockDgram.h>

#include "media_relay/Member.h"
#include "media_relay/rtsp/RtpMuxer.h"
#include "media_relay/rtsp/RtspViewer.h"

namespace relay {

class RtspOutput;

/// One pair of sockets serves every client: their addresses tell them apart. What the kernel does not take
/// at once is lost, as datagrams are.
///
/// Threads: `send` and `sendReports` are the producer's, all else is for any thread.
class RtspDatagrams {
public:
    explicit RtspDatagrams(RtspOutput& output) : m_output(output) {}

    /// Before anybody comes: opens the sockets on this address, and watches them until the roster is told
    /// to end. False if there are no two ports in a row; the library has logged why.
    bool open(Roster& roster, const std::string& host);

    unsigned short port() const { return m_port; }  ///< of packets; that of reports is the next one

    /// From the next unit to begin with on, it gets all. Stops when it has been stopped.
    void play(const std::shared_ptr<RtspViewer>& viewer);
    void stop(const RtspViewer& viewer);

    /// The next unit is one to begin with: whoever waits for it gets these reports first, one for each
    /// track.
    void begin(const std::vector<RtpPacket>& reports);

    void send(const RtpUnit& unit);
    void sendReports(const std::vector<RtpPacket>& reports);

private:
    class Reader;

    struct Player {
        std::shared_ptr<RtspViewer> viewer;
        bool begun;
    };

    bool openPair(const std::string& host);
    void read(int handle);
    void sendReports(const Player& player, const std::vector<RtpPacket>& reports) INFRA_REQUIRES(m_mutex);

    RtspOutput& m_output;
    unsigned short m_port = 0;
    Orvex::Infra::CMutex m_mutex;  // innermost but for those of viewers
    Orvex::Reticor::CSockDgram m_packets INFRA_GUARDED_BY(m_mutex);
    Orvex::Reticor::CSockDgram m_reports INFRA_GUARDED_BY(m_mutex);
    std::vector<Player> m_players INFRA_GUARDED_BY(m_mutex);
};

}  // namespace relay
