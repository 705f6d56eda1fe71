// UdpInput: a transport stream in datagrams, with RTP or without.
#pragma once

#include <memory>
#include <string>

#include <Reticor/SockDgram.h>

#include "media_relay/input/InputUrl.h"
#include "media_relay/input/LiveInput.h"
#include "media_relay/input/RtpReader.h"

namespace relay {

/// Datagrams of any size, read in bursts. Without RTP their bytes are one stream, whatever the datagrams'
/// bounds. It never ends by itself.
class UdpInput : public LiveInput {
public:
    /// Opens the port, and joins the group. The result is empty, or what went wrong.
    static std::string open(const InputUrl& url, std::unique_ptr<Orvex::Reticor::CSockDgram>& socket);

    static void Create(Roster& roster, const Setup& setup, const InputUrl& url,
                       std::unique_ptr<Orvex::Reticor::CSockDgram> socket);

    int handle_input(int fd) override;

private:
    UdpInput(Roster& roster, const Setup& setup, const InputUrl& url,
             std::unique_ptr<Orvex::Reticor::CSockDgram> socket);

    void leave() override INFRA_REQUIRES(m_mutex);
    void fill(SourceView& view) override INFRA_REQUIRES(m_mutex);

    const bool m_rtp;
    const std::unique_ptr<Orvex::Reticor::CSockDgram> m_socket;
    const std::unique_ptr<char[]> m_room;
    RtpReader m_reader INFRA_GUARDED_BY(m_mutex);
};

}  // namespace relay
