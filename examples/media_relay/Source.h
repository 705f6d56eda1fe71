// Source: what the inputs have in common. A source is called at the pace of its media time, and hands frames
// to the live stream.
#pragma once

#include <string>

#include <Reticor/MediaStreamReceiver.h>

#include "media_relay/LiveStream.h"
#include "media_relay/Roster.h"

namespace relay {

/// How an input fares.
struct SourceView {
    std::string kind;
    double seconds = 0;    // of media time played
    uint64_t skipped = 0;  // bytes that belonged to no packet
    uint64_t damaged = 0;  // packets
    uint64_t jumps = 0;    // of the clock
    uint64_t rounds = 0;   // times that the input began again
};

/// Told by a source, on its own thread. Outlives it.
class SourceListener {
public:
    virtual ~SourceListener() = default;
    virtual void onSourceView(const SourceView& view) = 0;
    /// Nothing more comes. `error` is empty at the regular end. Once.
    virtual void onSourceEnd(const std::string& error) = 0;
};

/// A receiver in paced mode, and a member of the roster until it is gone.
class Source : public Orvex::Reticor::CMediaStreamReceiver {
public:
    int handle_close(CNetHandler* self) override;
    int handle_message(long sender, unsigned int msg, long attach) override;

    /// Begins to play.
    void start(double speed);

protected:
    Source(Roster& roster, LiveStream& stream, SourceListener& listener);

    /// Playing goes on, with a media time that counts from now. The receiver's clock is a float: near 0 it
    /// is exact, after an hour it counts in steps of 256 us, after a day in steps of 8 ms.
    void restartClock();

    /// Reports the end, once.
    void end(const std::string& error);

    void tell() { m_listener.onSourceView(m_now); }

    LiveStream& m_stream;
    SourceView m_now;

private:
    void play();

    Roster& m_roster;
    SourceListener& m_listener;
    float m_speed = 1;
    bool m_ended = false;
};

}  // namespace relay
