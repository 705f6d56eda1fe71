// RtspDatagrams: out to whoever plays, in from whoever reports.

#include "media_relay/rtsp/RtspDatagrams.h"

#include <sys/uio.h>
#include <algorithm>

#include <Reticor/SockAddrStorage.h>

#include "media_relay/rtsp/RtspOutput.h"

namespace relay {

using namespace Orvex::Reticor;
using Orvex::Infra::CGuard;

namespace {

constexpr int kPairs = 64;      // that are tried
constexpr int kBurst = 64;      // datagrams that are read before others have their turn
constexpr size_t kLong = 2048;  // bytes of a report, and more than one has

}  // namespace

/// Hands on what can be read, until it is told to end.
class RtspDatagrams::Reader : public Member {
public:
    static bool Create(Roster& roster, RtspDatagrams& sockets) {
        auto* const self = new Reader(roster, sockets);
        self->enter();
        CGuard guard(sockets.m_mutex);
        return self->RegisterSock(sockets.m_packets, SOCK_READ, 0) == 0 &&
               self->RegisterSock(sockets.m_reports, SOCK_READ, 0) == 0;
    }
    int handle_input(int handle) override {
        m_sockets.read(handle);
        return 0;
    }
    int handle_message(long, unsigned int msg, long) override {
        if (msg == kStop) {
            CGuard guard(m_sockets.m_mutex);
            RemoveSock(m_sockets.m_packets);
            RemoveSock(m_sockets.m_reports);
            m_sockets.m_packets.Close();
            m_sockets.m_reports.Close();
            Close();
        }
        return 0;
    }

private:
    Reader(Roster& roster, RtspDatagrams& sockets) : Member(roster), m_sockets(sockets) {}

    RtspDatagrams& m_sockets;
};

/// Reports come and go by the port after that of the packets, which is even (RFC 3550, 11).
bool RtspDatagrams::openPair(const std::string& host) {
    CGuard guard(m_mutex);
    for (int i = 0; i < kPairs; ++i) {
        const CSockAddrStorage any(host.c_str(), 0);
        CSockAddrStorage local;
        if (m_packets.Open(&any) != 0 || m_packets.GetLocalAddr(&local) != 0) {
            return false;
        }
        const unsigned port = local.GetPort();
        const CSockAddrStorage next(host.c_str(), static_cast<unsigned short>(port + 1));
        if (port % 2 == 0 && m_reports.Open(&next) == 0) {
            m_port = static_cast<unsigned short>(port);
            return true;
        }
    }
    return false;
}

bool RtspDatagrams::open(Roster& roster, const std::string& host) {
    return openPair(host) && Reader::Create(roster, *this);
}

void RtspDatagrams::play(const std::shared_ptr<RtspViewer>& viewer) {
    CGuard guard(m_mutex);
    m_players.push_back({viewer, false});
}

void RtspDatagrams::stop(const RtspViewer& viewer) {
    CGuard guard(m_mutex);
    m_players.erase(std::remove_if(m_players.begin(), m_players.end(),
                                   [&](const Player& player) { return player.viewer.get() == &viewer; }),
                    m_players.end());
}

void RtspDatagrams::begin(const std::vector<RtpPacket>& reports) {
    CGuard guard(m_mutex);
    for (Player& player : m_players) {
        if (!player.begun) {
            player.begun = true;
            sendReports(player, reports);
        }
    }
}

void RtspDatagrams::send(const RtpUnit& unit) {
    CGuard guard(m_mutex);
    if (m_players.empty() || unit.track >= RtspViewer::TRACKS || !m_packets.IsValid()) {
        return;
    }
    std::vector<iovec> datagrams;
    for (const RtpPacket& packet : unit.packets) {
        auto* const bytes = const_cast<uint8_t*>(packet.data());  // it is not written to
        datagrams.push_back({bytes + RtpTrack::FRAMING, packet.size() - RtpTrack::FRAMING});
    }
    for (const Player& player : m_players) {
        const RtspViewer::Target& target = player.viewer->target(unit.track);
        size_t sent = 0;
        while (player.begun && target.wanted && sent < datagrams.size()) {
            const int more = m_packets.SendMany(&datagrams[sent], static_cast<int>(datagrams.size() - sent),
                                                &target.packets);
            if (more <= 0) {
                break;
            }
            sent += static_cast<size_t>(more);
        }
    }
}

void RtspDatagrams::sendReports(const std::vector<RtpPacket>& reports) {
    CGuard guard(m_mutex);
    for (const Player& player : m_players) {
        if (player.begun) {
            sendReports(player, reports);
        }
    }
}

void RtspDatagrams::sendReports(const Player& player, const std::vector<RtpPacket>& reports) {
    for (size_t track = 0; track < std::min(reports.size(), RtspViewer::TRACKS); ++track) {
        const RtspViewer::Target& target = player.viewer->target(track);
        const RtpPacket& report = reports[track];
        if (target.wanted && m_reports.IsValid()) {
            m_reports.Send(reinterpret_cast<const char*>(report.data()) + RtpTrack::FRAMING,
                           static_cast<unsigned>(report.size() - RtpTrack::FRAMING), &target.reports);
        }
    }
}

/// What comes to the socket of the packets only opens the way through a router.
void RtspDatagrams::read(int handle) {
    for (int i = 0; i < kBurst; ++i) {
        char bytes[kLong];
        CSockAddrStorage from;
        std::shared_ptr<RtspViewer> viewer;
        int size = 0;
        {
            CGuard guard(m_mutex);
            const bool report = handle == m_reports.GetHandle();
            CSockDgram& socket = report ? m_reports : m_packets;
            size = socket.IsValid() ? socket.Recv(bytes, sizeof bytes, &from) : 0;
            if (size <= 0) {
                return;
            }
            char ip[128] = "";
            from.GetIpStr(ip, sizeof ip);
            for (const Player& player : m_players) {
                if (report && player.viewer->ip() == ip && player.viewer->reportsFrom(from.GetPort())) {
                    viewer = player.viewer;
                }
            }
        }
        if (viewer != nullptr) {
            m_output.takeReport(*viewer, reinterpret_cast<const uint8_t*>(bytes), static_cast<size_t>(size));
        }
    }
}

}  // namespace relay
