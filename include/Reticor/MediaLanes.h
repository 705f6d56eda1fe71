// CMediaLanes: one producer's frames for clients that several processors serve.
#pragma once

#include <cstdint>

#include <Reticor/Export.h>
#include <Reticor/MediaPacket.h>
#include <Reticor/PoolSet.h>

namespace Orvex::Reticor {

class CMediaStreamSender;
class CSock;
struct MediaLanesState;

/// What lanes hold, and what became of it. Totals count from Create on. Later versions add fields at the end:
/// `size` says how many bytes were filled.
struct MediaLanesStats {
    uint32_t size = 0;            ///< Bytes that are filled, this field included.
    uint32_t version = 1;         ///< Of this struct.
    uint32_t lanes = 0;           ///< Of which this tells.
    uint32_t senders = 0;         ///< On their lists.
    uint64_t puts = 0;            ///< Whole frames that were put, whatever became of them in a lane.
    uint64_t waiting_frames = 0;  ///< That no worker of the lane has taken yet.
    uint64_t waiting_bytes = 0;   ///< Their bytes.
    /// Frames that a lane has lost, since more waited than its bounds allow. To its clients they are frames
    /// that were gone when their turn came.
    uint64_t lost_frames = 0;
    uint64_t lost_bytes = 0;      ///< Their bytes.
    uint64_t frames = 0;          ///< Complete frames that the lanes' buffers hold: see MediaBufferStats.
    uint64_t bytes = 0;           ///< Their bytes.
    uint64_t expired_frames = 0;  ///< Frames that those have thrown away for their age.
    uint64_t expired_bytes = 0;   ///< Their bytes.
    uint64_t kept_frames = 0;     ///< Frames that wait there for senders that step ahead.
    uint64_t kept_bytes = 0;      ///< Their bytes.
};

/// One stream for the clients of several processors: a CMediaBuffer of its own for each lane, with its own
/// lock, on a private pool of its own. The producer hands each packet in once, and each lane writes to its
/// clients on its pool's workers; what one client is sent is what one buffer would send it. See
/// docs/media.md.
///
///     CMediaLanes lanes;
///     lanes.Create(2, 2);
///     ...
///     CMediaLanes::Place place;
///     if (lanes.Next(SOCK_READ | SOCK_WRITE, place) == 0) {
///         // the client's handler is CNetHandler(place.GetPool()), and keeps the place
///         lanes.AddSender(sender, place);
///     }
///
/// `Put` costs the producer a few operations for each lane, and never a write to a client nor a wait for one:
/// a whole frame goes into an inbox of each lane, of which a worker of its pool is told. Packets are shared.
/// GetBuffer is called once, inside Put; Release once, by whichever lane is last, on a worker of any lane, or
/// inside any operation. Nothing is copied, and a stream that runs takes no memory. Frames of which the last
/// packet was not put yet are in no lane.
///
/// An inbox has bounds (SetInboxLimits). Beyond them the oldest one of the least important frames is lost in
/// that lane alone, be it the one that comes: always whole, so that no client is sent a part. Clients with a
/// resume policy wait for a key frame then, if another frame needs what was lost.
///
/// Thread safety: every operation may be called from any thread, but for Create, Destroy and the destructor,
/// with which no other call of this object may be under way. `Put`, `PutFrameInfo`, `do_send`, `GetBacklog`
/// and `Next` wait for no lane; what else concerns a lane's senders waits for its lock, as it does with a
/// CMediaBuffer.
///
/// Call-backs (see CMediaBuffer) run with the lock of one lane held, those of taps and GetBuffer with the
/// lock under which packets are put. Inside one, no other lane can be waited for, since its call-backs may
/// want this one. AddSender and DelSender are noted, and done when the thread is out of all call-backs;
/// `Put`, `PutFrameInfo`, `do_send`, `GetBacklog`, `Next` and changes of taps work, but that a tap of these
/// lanes does not put into them. What else is called there gives -1 with a line at level 2, and nothing has
/// changed.
class RETICOR_API CMediaLanes {
public:
    /// The most lanes that there can be.
    static constexpr unsigned int MOST_LANES = CPoolSet::MOST_POOLS;

    /// What is reserved for a client: a lane, and places in its pool (CPoolSet::Place). Given back by the
    /// destructor, by `Release`, and by being assigned to. May outlive the lanes.
    class RETICOR_API Place {
    public:
        /// The index of the lane's pool, for `CNetHandler(int)`. -1 if the place is empty.
        int GetPool() const;
        /// The lane, from 0 on. -1 if the place is empty.
        int GetLane() const;
        /// Gives the place back, which is empty then. Call it, or destroy the place, once the client's socket
        /// is removed.
        void Release();

    private:
        CPoolSet::Place m_place;
        int m_lane = -1;

        friend class CMediaLanes;
    };

    /// No lanes: what has a result gives -1.
    CMediaLanes();
    /// `Destroy`. Asserts inside a call-back of a media buffer.
    ~CMediaLanes();
    CMediaLanes(const CMediaLanes&) = delete;
    CMediaLanes& operator=(const CMediaLanes&) = delete;

    /// Makes that number of lanes, 1 to 63, each with a private pool of `threads` workers, raised to a
    /// multiple of the processors. Blocks for their start; never inside a `handle_*` call. Result: 0; -1,
    /// with a line at level 2 and nothing left behind, for another number, if there are lanes already,
    /// without memory, or if one of the pools cannot be created.
    int Create(unsigned int lanes, unsigned int threads);

    /// Ends the lanes: their pools first, which blocks until their threads have ended, then all frames are
    /// released, and senders let go as by Clear. Handlers on the pools should be closed before. Never inside
    /// a `handle_*` call. Result: 0; -1 if there are none, or inside a call-back of a media buffer.
    int Destroy();

    /// Chooses a lane for a client, before its handler is made: that with most places left, of which it
    /// reserves one for each direction in `mask` (SOCK_*). Result: 0, and what `place` held before is given
    /// back; -1, with nothing changed, if no lane has room, there are none, or `mask` names no direction.
    int Next(unsigned int mask, Place& place);

    /// The same by the processor on which the client's packets come in (SO_INCOMING_CPU): clients of one
    /// processor get the same lane, while that has room. A socket that does not know gets the lane with most
    /// places left.
    int Next(unsigned int mask, Place& place, const CSock& client);

    /// As CMediaBuffer::Put. 0; -1, and the packet stays the caller's, without memory, without lanes, for a
    /// null packet, a negative `len` or, on a frame's last packet, a channel beyond 0 to 7, and inside a tap
    /// of these lanes, all with a line at level 2.
    int Put(CMediaPacket* packet, int len, int mark, int level);

    /// As CMediaBuffer::PutFrameInfo: send procedures and filters are given this packet. Result as of Put; a
    /// null packet changes nothing and gives 0.
    int PutFrameInfo(CMediaPacket* packet, int arg);

    /// Tells each lane to let its senders go on with what is there, on its own workers: a tick
    /// (CMediaBuffer::do_send). Does nothing while a frame is half filled.
    void do_send();

    /// The most frames that wait in any inbox. A producer that makes frames as fast as they go, out of a
    /// file, waits while this is not small. Takes short locks alone.
    int GetBacklog();

    /// Puts a sender on the list of the lane of `place`, on whose pool the sender's owner should be
    /// (CMediaStreamSender::WaitRoom). Frames that wait for the lane at that time come after it, and it
    /// begins with the first key frame among them. Everything else is as of CMediaBuffer::AddSender. 0; 1
    /// inside a call-back: noted. -1 without lanes or with an empty place, with a line at level 2.
    int AddSender(CMediaStreamSender* sender, const Place& place);

    /// The same without a place: the lane on which the sender was last; else that on whose pool the sender's
    /// owner is, if it waits for room; otherwise lanes take turns. On another lane than before a sender can
    /// get frames again that it has had, since that one has not come to them yet.
    int AddSender(CMediaStreamSender* sender);

    /// Takes a sender off. 0: it is on no lane any more, and its socket is not used; it may be closed. 1:
    /// noted, inside a call-back that is not of its lane: it may still be written to until the thread is out
    /// of all call-backs. Do not close the socket then: post a message, and call DelSender again there, which
    /// gives 0 when that is done. -1, with a line at level 2, inside such a call-back without memory for the
    /// note, and without lanes. A sender that is on none of these lanes is ignored.
    int DelSender(CMediaStreamSender* sender);

    /// Puts a tap at the head of the list, as CMediaBuffer::AddLevel2Buffer. It sees each packet once, inside
    /// Put, before any lane.
    void AddLevel2Buffer(CLevel2Buffer_IF* tap);
    /// Takes a tap off. One that is not on the list is ignored.
    void DelLevel2Buffer(CLevel2Buffer_IF* tap);

    /// These lanes as a tap of a buffer, or of other lanes. What is shown to it is put, and so has one more
    /// holder: each packet gets a GetBuffer and a Release from here beside those of the buffer, and its class
    /// must count them. A packet for which there is no memory is released at once, and so are the others of
    /// its frame. Null without lanes. Take it off before the lanes end.
    CLevel2Buffer_IF* GetTap();

    /// Releases all frames, in all lanes, and empties all lists, with log lines at level 3. Nobody is told.
    /// What another thread puts meanwhile comes before or after. 0; -1 inside a call-back, or without lanes.
    int Clear();

    /// The shared timer posts a tick to each lane, as CMediaBuffer::EnableAutoSend. 0; -1 without memory,
    /// with a line at level 2, inside a call-back, or without lanes.
    int EnableAutoSend(unsigned long long interval = 100);
    /// Off the timer, which does not touch the lanes any more when the call returns. Result as above.
    int DisableAutoSend();

    /// CMediaBuffer::SetDisposableLevel of each lane, also for frames that wait. 0; -1 inside a call-back, or
    /// without lanes.
    int SetDisposableLevel(int level);
    /// CMediaBuffer::SetKeepLimits of each lane. Result as above.
    int SetKeepLimits(unsigned keep_ms, unsigned long long most_bytes);
    /// CMediaBuffer::SetStartCache of each lane, and so are the bounds those of each. The same packets are
    /// held by all. Result as above.
    int SetStartCache(unsigned keep_ms, unsigned long long most_bytes);
    /// CMediaBuffer::SetWriteBatch of each lane. 0; -1 with errno if the kernel refuses, and the lanes before
    /// the first one that has none keep theirs; -1 inside a call-back, or without lanes.
    int SetWriteBatch(unsigned least);
    /// How many frames, 1 to 1024, and bytes, above 0, may wait in each inbox: 1024 and 64 MiB at the start.
    /// A single frame may be longer. 0; -1 for other numbers, with a line at level 2, or without lanes.
    int SetInboxLimits(unsigned int frames, unsigned long long bytes);

    /// Fills `stats`, of which the caller has `size` bytes, with the sums of all lanes, or with what one of
    /// them holds. Waits for their locks, one at a time. 0; -1 for a null pointer, a size below 8, a lane
    /// that is not there, inside a call-back, or without lanes.
    int GetStats(MediaLanesStats* stats, unsigned int size, int lane = -1);

private:
    friend struct MediaLanesState;
    MediaLanesState* m_state;  ///< Owned.
};

}  // namespace Orvex::Reticor
