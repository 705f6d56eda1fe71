// Streams: the streams of the program, by name.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <Infra/Mutex.h>

#include "media_relay/stream/Stream.h"

namespace relay {

/// Whoever watches or feeds a stream holds it. A stream that has ended stays, so that its figures can be
/// looked at.
///
/// Threads: any, also while clients are served. The mutex comes before those of the streams.
class Streams {
public:
    /// Both outlive it.
    Streams(const Options& options, Waker& waker) : m_options(options), m_waker(waker) {}

    /// A new stream, which something is to feed from now on. Null if that cannot be, with the reason in
    /// `wrong`, as the end of a sentence that begins with the name.
    std::shared_ptr<Stream> make(const std::string& name, Stream::Kind kind, std::string& wrong);

    /// Null if there is none of that name.
    std::shared_ptr<Stream> find(const std::string& name);

    /// The stream that is meant where none is named: the oldest. There is one before clients come.
    std::shared_ptr<Stream> first();

    /// The oldest first.
    std::vector<std::shared_ptr<Stream>> list();

    /// All streams, and those that are made from now on, have ports for datagrams of RTSP. False if one
    /// finds none. `roster` outlives it.
    bool openDatagrams(Roster& roster);

    /// No stream is made any more: the members of the roster are about to be told to end.
    void close();

private:
    std::shared_ptr<Stream> look(const std::string& name) INFRA_REQUIRES(m_mutex);

    const Options& m_options;
    Waker& m_waker;
    Orvex::Infra::CMutex m_mutex;
    std::vector<std::shared_ptr<Stream>> m_streams INFRA_GUARDED_BY(m_mutex);  // few
    Roster* m_roster INFRA_GUARDED_BY(m_mutex) = nullptr;                      // of those that read datagrams
    bool m_closed INFRA_GUARDED_BY(m_mutex) = false;
};

}  // namespace relay
