// CMediaStreamReceiver: the base of objects that are called at a steady pace, on threads of their own.
#pragma once

#include <cstdint>

#include <Reticor/Export.h>
#include <Reticor/NetHandler.h>

namespace Orvex::Reticor {

struct MediaReceiverState;

/// How a receiver is called. Any other number counts as receiver_passive.
enum receiver_mode : uint32_t {
    receiver_active = 0,   ///< handle_stream_input, once per receive period.
    receiver_passive = 1,  ///< handle_passive_input, paced by the media times that it returns.
    receiver_write = 2,    ///< handle_stream_write, every 40 ms.
};

/// What a CMediaStreamReceiver tells by message, with its own id as sender and 0 attached.
constexpr unsigned int MEDIA_RECEIVER_FAILED = 2;  ///< A callback returned a negative value.
constexpr unsigned int MEDIA_RECEIVER_ENDED = 5;   ///< The receiver will make no more calls.

/// Derive from it, override the callback of the wanted mode and `handle_close`, create it with `new`, and
/// call StartReceive. The callbacks come from a small group of threads, each on a processor of its own, and
/// not from the pool, so that the pace does not depend on socket traffic. All receivers of a thread are
/// called once per tick, one after the other: a callback that blocks delays its neighbours.
///
/// The tick is the receive period, 20 ms unless CNetThread::SetRcvPriority changed it, and 40 ms for
/// receiver_write.
///
/// Pace: in receiver_passive mode each call delivers one unit and returns its media time. The first one after
/// StartReceive sets the clock; from then on the receiver is called when the next unit is due. A receiver
/// that is late delivers up to 8 units per tick until it has caught up. Media times are counted in single
/// precision: in steps of 256 us one hour after zero, of 8 ms after a day. So let them start near 0; with
/// microseconds since 1970 the pace would go in steps of two minutes.
///
/// Life: a handler of the public pool. Never deleted by its creator: Close ends it, `handle_close` of the
/// derived class deletes it. Do that before the library goes down: it ends the calls of receivers that are
/// still started and closes them, but the pool that would call their `handle_close` ends as well.
///
/// Thread safety: any thread. Callbacks of one receiver never overlap. No lock of the library is held while
/// they run: they may call every operation of their own object, but neither create nor destroy a pool.
class RETICOR_API CMediaStreamReceiver : public CNetHandler {
public:
    /// A stopped receiver in receiver_active mode. The public pool must exist. Without memory there is a line
    /// at level 2, and StartReceive gives -1.
    CMediaStreamReceiver();
    ~CMediaStreamReceiver() override;

    CMediaStreamReceiver(const CMediaStreamReceiver&) = delete;
    CMediaStreamReceiver& operator=(const CMediaStreamReceiver&) = delete;

    /// The first StartReceive chooses the thread, and with it the tick, by the mode; a later change of the
    /// mode changes the callback alone.
    void SetReceiveMode(receiver_mode mode);

    /// Names the handler that gets MEDIA_RECEIVER_FAILED, each time, and MEDIA_RECEIVER_ENDED; 0 for nobody.
    void WaitException(long id);

    /// Has no effect but a log line at level 3; part of the interface.
    void SetFrameRate(unsigned int rate);

    /// Starts the calls, or resumes them after StopReceive; either way the next unit sets the clock anew.
    ///
    /// `start_offset` is the media time, in microseconds, that counts as played already: the receiver runs
    /// that far ahead of real time. It counts only with a `speed` of exactly 1.0. `speed` is the rate of
    /// play: 2.0 is twice as fast. With a speed of 0 or one that is not a number every unit is due at once.
    ///
    /// Result: 0; -1, with a line at level 2, if no thread could be started, the receiver runs already or is
    /// closed, the library is down, or there is no memory. After -1 for want of a thread it may be called
    /// again. Blocks while the thread that is taken ends an earlier run, some milliseconds.
    int StartReceive(long long start_offset, float speed);

    /// Ends the calls until the next StartReceive. A callback that runs goes on. Logs at level 2 if the
    /// receiver does not run.
    void StopReceive();

    /// Ends the receiver: no new call is made, MEDIA_RECEIVER_ENDED follows within a tick (at once, if it was
    /// never started), and then the object is closed as any handler is. Also allowed in a callback. After the
    /// call the object may be gone unless the caller holds a reference.
    void Close() override;

    /// The callback of receiver_active. A negative result is told to the handler of WaitException, and the
    /// calls go on.
    virtual int handle_stream_input();

    /// The callback of receiver_passive: delivers one unit and returns its media time in microseconds. 0 says
    /// that there is nothing to deliver, and the next tick asks again; a negative result is told as above.
    virtual long long handle_passive_input();

    /// The callback of receiver_write. Result as of handle_stream_input.
    virtual int handle_stream_write();

private:
    class RETICOR_HIDDEN Turn;

    MediaReceiverState* m_state;  ///< Owned.
};

}  // namespace Orvex::Reticor
