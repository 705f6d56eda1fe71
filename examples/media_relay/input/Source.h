// Source: what the paced inputs have in common. A source is called at the pace of its media time.
#pragma once

#include <string>

#include <Reticor/MediaStreamReceiver.h>

#include "media_relay/Roster.h"
#include "media_relay/input/SourceView.h"

namespace relay {

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
    Source(Roster& roster, SourceListener& listener);

    /// Playing goes on, with a media time that counts from now. The receiver's clock is a float: near 0 it
    /// is exact, after an hour it counts in steps of 256 us, after a day in steps of 8 ms.
    void restartClock();

    /// Reports the end, once.
    void end(const std::string& error);

    void tell() { m_listener.onSourceView(m_now); }

    SourceView m_now;

private:
    void play();

    Roster& m_roster;
    SourceListener& m_listener;
    float m_speed = 1;
    bool m_ended = false;
};

}  // namespace relay
