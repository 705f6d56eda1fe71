// LiveInput: what the inputs have in common that come at a pace of their own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include <Infra/Mutex.h>

#include "media_relay/Member.h"
#include "media_relay/input/Source.h"
#include "media_relay/input/TsInput.h"

namespace relay {

/// A handler that gives bytes to a TsInput as they come, on the worker that got them, and tells twice a
/// second how the input fares. A silent input says so, and has not ended.
class LiveInput : public Member {
public:
    /// Of what it plays, and to whom.
    struct Setup {
        TsOutputs outputs;
        SourceListener& listener;
        unsigned program = 0;  // of several; 0: the first one
    };

    int64_t handle_timeout(long id) override;
    int handle_message(long sender, unsigned int msg, long attach) override;

protected:
    LiveInput(Roster& roster, const Setup& setup, const std::string& kind);

    /// Enters the roster and begins to tell. After construction, before anything can call back.
    void begin();

    /// `kStop` has come, or the input has ended: no more calls are wanted.
    virtual void leave() INFRA_REQUIRES(m_mutex) = 0;

    /// Adds its own to what is told.
    virtual void fill(SourceView&) INFRA_REQUIRES(m_mutex) {}

    void take(const uint8_t* bytes, size_t size) INFRA_REQUIRES(m_mutex);

    /// Reports the end, once, and closes.
    void end(const std::string& error) INFRA_REQUIRES(m_mutex);

    Orvex::Infra::CMutex m_mutex;  // comes before those of the outputs
    TsInput m_input INFRA_GUARDED_BY(m_mutex);
    std::string m_state INFRA_GUARDED_BY(m_mutex);  // told instead of silence, if it is not empty
    bool m_over INFRA_GUARDED_BY(m_mutex) = false;

private:
    void tell() INFRA_REQUIRES(m_mutex);

    SourceListener& m_listener;
    SourceView m_now INFRA_GUARDED_BY(m_mutex);
    uint64_t m_heard_us INFRA_GUARDED_BY(m_mutex);  // when something last came
};

}  // namespace relay
