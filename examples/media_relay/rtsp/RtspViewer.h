// RtspViewer: one client of RTSP, and what it says of what it gets.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <utility>

#include <Infra/Mutex.h>
#include <Infra/Time.h>
#include <Reticor/SockAddrStorage.h>

#include "media_relay/rtsp/RtpTrack.h"
#include "media_relay/rtsp/Transport.h"

namespace relay {

/// Thread safety: `setTrack` before it plays; all else is for any thread.
class RtspViewer {
public:
    static constexpr size_t TRACKS = 2;

    /// Where a track's datagrams go.
    struct Target {
        bool wanted = false;
        Orvex::Reticor::CSockAddrStorage packets;
        Orvex::Reticor::CSockAddrStorage reports;
    };
    struct Reception {
        bool known = false;
        double lost = 0;  // from 0 to 1
        int32_t lostInAll = 0;
        double jitter_ms = 0;
    };

    RtspViewer(unsigned number, std::string ip) : m_number(number), m_ip(std::move(ip)) {}

    unsigned number() const { return m_number; }
    const std::string& ip() const { return m_ip; }

    void setTrack(size_t track, const Transport& transport) {
        m_kind = transport.kind;
        Target& target = m_targets.at(track);
        target.wanted = true;
        target.packets = Orvex::Reticor::CSockAddrStorage(m_ip.c_str(), transport.port);
        target.reports = Orvex::Reticor::CSockAddrStorage(m_ip.c_str(), transport.reportPort);
        m_ports.at(track) = transport.reportPort;
    }
    /// NONE: nothing has been set up.
    Transport::Kind kind() const { return m_kind; }
    const Target& target(size_t track) const { return m_targets.at(track); }

    /// Whether reports about one of its tracks come from this port of its address.
    bool reportsFrom(unsigned short port) const {
        return port != 0 && (m_ports[0] == port || m_ports[1] == port);
    }

    /// It lives: it has said something.
    void heard() {
        Orvex::Infra::CGuard guard(m_mutex);
        m_heard_us = Orvex::Infra::CTime::getCurrentMicroSecond();
    }
    uint64_t silence_us() {
        Orvex::Infra::CGuard guard(m_mutex);
        return Orvex::Infra::CTime::getCurrentMicroSecond() - m_heard_us;
    }

    /// `scale`: ticks of the track's clock a second.
    void note(size_t track, const RtpReception& reception, unsigned scale) {
        Orvex::Infra::CGuard guard(m_mutex);
        m_receptions.at(track) = {true, reception.lost, reception.lostInAll,
                                  1000.0 * reception.jitter / scale};
    }
    Reception reception(size_t track) {
        Orvex::Infra::CGuard guard(m_mutex);
        return m_receptions.at(track);
    }

private:
    const unsigned m_number;
    const std::string m_ip;
    Transport::Kind m_kind = Transport::NONE;
    std::array<Target, TRACKS> m_targets;
    std::array<unsigned short, TRACKS> m_ports{};
    Orvex::Infra::CMutex m_mutex;  // innermost
    uint64_t m_heard_us INFRA_GUARDED_BY(m_mutex) = Orvex::Infra::CTime::getCurrentMicroSecond();
    std::array<Reception, TRACKS> m_receptions INFRA_GUARDED_BY(m_mutex);
};

}  // namespace relay
