// Mp4Output: the stream as browsers play it, made while somebody watches it.
#pragma once

#include <memory>
#include <string>

#include <Infra/Mutex.h>

#include "media_relay/LiveStream.h"
#include "media_relay/hls/HlsOutput.h"
#include "media_relay/mp4/Remuxer.h"

namespace relay {

/// A live stream of its own beside the transport stream's: fragments of MP4, one a picture, in memory that
/// all its clients share. A client is sent the head of its answer with the init segment in it when it is let
/// in, so that it gets the one that its first fragment plays with. When formats change, the new init segment
/// stands in front of each fragment that can be begun with: a client that skips ahead finds it, too.
///
/// The same fragments are what HTTP live streaming is made of, while somebody asks for that.
///
/// Threads: `onProgram`, `put` and `end` are the producer's, all else is for any thread.
class Mp4Output : private Remuxer::Sink {
public:
    /// Before the first unit. `burst`: clients begin with the last key frame, and not with the next one.
    void setUp(bool burst, bool disposableFirst) {
        m_stream.setUp(burst, disposableFirst);
        m_stream.needPrologue();
    }

    LiveStream& stream() { return m_stream; }
    HlsOutput& hls() { return m_hls; }

    /// Why browsers do not play the input, as a sentence; empty if they do, or if it is not known yet.
    std::string refusal();

    /// Whether the input has said what it holds.
    bool isKnown();

    /// What the fragments hold, as browsers name it; empty while there are none.
    std::string codecs();

    /// Where the last fragment ends, in seconds as a player counts; how far a viewer is from it is its delay.
    double edge_s();

    void onProgram(const ProgramMap& map);
    void put(const AccessUnit& unit);
    void end();

private:
    void onInit(const Mp4Init& init) override;
    void onFragment(Mp4Fragment&& fragment) override;
    bool isWatched();
    void setPrologue();
    void setCodecs(const std::string& codecs);

    LiveStream m_stream;
    HlsOutput m_hls;
    ProgramMap m_map;                    // this and what follows: the producer's
    std::unique_ptr<Remuxer> m_remuxer;  // while somebody watches, and for a while after
    bool m_watched = false;              // the live stream is fed
    uint64_t m_watched_us = 0;           // when it last had clients
    Mp4Init m_init;

    Orvex::Infra::CMutex m_mutex;  // innermost
    bool m_known INFRA_GUARDED_BY(m_mutex) = false;
    std::string m_refusal INFRA_GUARDED_BY(m_mutex);
    std::string m_codecs INFRA_GUARDED_BY(m_mutex);
    double m_edge_s INFRA_GUARDED_BY(m_mutex) = 0;
};

}  // namespace relay
