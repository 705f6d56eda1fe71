// Publication: a stream that publishers push, one at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include <Infra/Mutex.h>

#include "media_relay/input/SourceView.h"
#include "media_relay/input/TsInput.h"
#include "media_relay/stream/Stream.h"

namespace relay {

/// What a publisher sends goes on to the viewers as it comes. When it is gone the viewers stay, and whoever
/// publishes next goes on in the same stream; viewers that have waited too long for one are let go.
///
/// Threads: any. The mutex comes before those of the stream's outputs.
class Publication {
public:
    enum class Outcome { TAKEN, NOT_YOURS, HOPELESS };

    /// Of several programmes in what is published it takes the one with this number, 0 is the first one.
    Publication(std::shared_ptr<Stream> stream, unsigned program);

    /// A publisher, by the id of its handler, which is not 0. False if another one is there, who goes only
    /// for one that `takesOver`; `before` is then who that was, else 0.
    bool enter(long publisher, bool takesOver, long& before);

    /// NOT_YOURS: another one has taken over. HOPELESS: this is no transport stream.
    Outcome put(long publisher, std::string_view bytes);

    /// `whole`: it has come to its end, and so has its last unit. Nothing if another one has taken over.
    void leave(long publisher, bool whole);

    /// Twice a second: tells the stream how its input fares. Whether the viewers have waited for a publisher
    /// for `grace_us`; once for each that has gone.
    bool tick(uint64_t grace_us);

    Stream& stream() { return *m_stream; }

private:
    const std::shared_ptr<Stream> m_stream;
    Orvex::Infra::CMutex m_mutex;
    TsInput m_input INFRA_GUARDED_BY(m_mutex);
    SourceView m_view INFRA_GUARDED_BY(m_mutex);
    long m_publisher INFRA_GUARDED_BY(m_mutex) = 0;    // 0: nobody
    bool m_fresh INFRA_GUARDED_BY(m_mutex) = true;     // this one has sent nothing yet
    bool m_any INFRA_GUARDED_BY(m_mutex) = false;      // somebody has
    bool m_patient INFRA_GUARDED_BY(m_mutex) = false;  // viewers wait for a publisher
    uint64_t m_heard_us INFRA_GUARDED_BY(m_mutex) =
        0;  // when something last came, or nobody was there any more
};

}  // namespace relay
