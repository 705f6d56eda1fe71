// CMediaBuffer: one producer's frames for any number of senders of different speed.
#pragma once

#include <cstdint>

#include <Reticor/Export.h>
#include <Reticor/MediaPacket.h>

namespace Orvex::Reticor {

class CMediaStreamSender;
struct MediaBufferState;

/// When a sender moves to another buffer.
enum class MediaMove {
    NOW,       ///< At its next frame boundary.
    NEXT_KEY,  ///< When the next key frame of the other buffer is complete.
};

/// What a buffer holds. Totals count from the construction on, `byte_total` from the last time that the
/// buffer ran empty of senders.
struct MediaBufferStats {
    uint64_t byte_total = 0;      ///< Bytes put.
    uint32_t frames = 0;          ///< Complete frames held.
    uint64_t bytes = 0;           ///< Their bytes.
    uint32_t senders = 0;         ///< Senders on the list.
    uint64_t expired_frames = 0;  ///< Frames thrown away for their age.
    uint64_t expired_bytes = 0;   ///< Their bytes.
    /// Bytes by which the slowest sender's position is short of what was let go already: frames are let go
    /// that many bytes too late.
    uint64_t debt_bytes = 0;
    /// Frames that cannot grow too old though no sender stands on them.
    uint32_t pinned_frames = 0;
    uint64_t pinned_bytes = 0;  ///< Their bytes.
    /// Frames that wait for senders that step ahead when they are late (CMediaStreamSender::SetResumePolicy),
    /// those held for all senders among them.
    uint32_t kept_frames = 0;
    uint64_t kept_bytes = 0;  ///< Their bytes.
};

/// What the start cache holds, and what became of it. The caller's memory: `size` says how much of it there
/// is, so that later versions may add to its end.
struct MediaStartStats {
    uint32_t size = sizeof(MediaStartStats);  ///< Of the caller's memory.
    uint32_t version = 1;                     ///< Of what was filled in.
    uint64_t frames = 0;                      ///< Frames held for clients that come.
    uint64_t bytes = 0;                       ///< Their bytes.
    uint64_t age_us = 0;                      ///< Age of the oldest one.
    uint64_t drops = 0;                       ///< Groups that went because they were beyond the bounds.
    uint64_t starts = 0;                      ///< Senders that have begun with it.
};

/// Stands between one producer and its CMediaStreamSenders. The producer hands in packets; the buffer groups
/// them into frames, offers each complete frame to every sender, keeps it until the slowest one is past it,
/// and throws frames away by age and importance when senders are late. Writing happens inside Put, on the
/// producer's thread, and never blocks: a slow client cannot stall the producer. Nothing is copied; see
/// docs/media.md for the whole.
///
/// A new sender begins at a key frame: a frame of the lowest level that its channel has had so far.
///
/// Age counts in ticks: one for each complete frame and one for each do_send between frames, while senders
/// are attached. A frame of level L that no sender stands on goes when it is (11 - L) * 10 ticks old.
///
/// A sender that steps ahead when it is late has frames kept for it, in the same memory: to the list above it
/// is one that has always caught up, and a frame that has left the list waits on until that sender is past it
/// or it is too old (SetKeepLimits). Then only its Release comes later.
///
/// Thread safety: every operation may be called from any thread. All work of a buffer, the writes to all its
/// sockets included, is done under one lock, for which other callers wait.
///
/// Call-backs (Release and GetBuffer of packets, Put of taps, send procedures, filters) run with that lock
/// held. They must not take a lock under which the product calls the buffer. From inside one, AddSender and
/// DelSender of the same buffer are noted: a sender that is to go writes nothing more and is off the list
/// when the operation ends, one that is to come is on the list then. So it is with AddSender of another
/// buffer for a sender that has been on a list before, which is how a send procedure moves its sender:
/// DelSender here, AddSender there, and no frame is torn. Taps can be added and removed, and the getters
/// work. Put, do_send and Clear of the same buffer assert there, and so do EnableAutoSend, DisableAutoSend
/// and the destruction of any buffer. A tap may put into another buffer, as long as the taps form no circle.
///
/// Without memory nothing is thrown: what has a result gives -1 with a line at level 2, and nothing has
/// changed.
class RETICOR_API CMediaBuffer {
public:
    /// Without memory there is a line at level 2, and the buffer takes nothing: `Put` gives -1.
    CMediaBuffer();
    /// Releases all packets. Senders and taps should be off the lists: those that are not are let go as by
    /// Clear, and so are those that come while packets are released.
    virtual ~CMediaBuffer();
    CMediaBuffer(const CMediaBuffer&) = delete;
    CMediaBuffer& operator=(const CMediaBuffer&) = delete;

    /// Takes a packet of `len` bytes, 0 or more, into the frame that is being filled. `mark` and `level`: see
    /// MEDIA_MARK_LAST and mediaLevel. A level beyond 1 to 10 is clamped; the word that counts for a frame is
    /// that of its last packet, whose channel must be 0 to 7. With MEDIA_MARK_LAST the frame is complete and
    /// is offered to the senders before the call returns, or released at once if there are none. A frame of
    /// no bytes is sent to nobody. 0; -1 without memory, and the packet stays the caller's: it can be put
    /// again.
    int Put(CMediaPacket* packet, int len, int mark, int level);

    /// Put and do_send in one. With a null packet the senders go on with what is there, if the last frame is
    /// complete; `force_remark` makes that a tick. Result as of Put.
    int put(CMediaPacket* packet, int len, int mark, int level, bool force_remark);

    /// Gives the frame that is being filled a packet and a number for the senders' procedures
    /// (CMediaStreamSender::AttachSendProc). The packet is released with the frame, an earlier one at once. A
    /// null packet changes nothing. Result as of Put.
    int PutFrameInfo(CMediaPacket* packet, int arg);

    /// Lets all senders go on with what is there. Does nothing while a frame is half filled.
    void do_send();

    /// From here on frames are completed, offered and grow older as ever, but nothing is written until Flush:
    /// a step for several frames costs each sender one write, if it gathers (CMediaStreamSender::SetGather).
    /// Meanwhile every client holds what it has not got, as one whose socket is full; those that wait for
    /// room go on when they have it. Keep it short: a few frames. A second Hold changes nothing.
    void Hold();
    /// Ends a hold: one step lets all senders go on. It is not a tick, and does nothing more while a frame is
    /// half filled. Without a hold it is such a step alone.
    void Flush();

    /// Hands the writes of a step to the kernel together, by io_uring(7), where at least `least` senders get
    /// the frame on offer as a whole; 0, as at the start: each by a call of its own. What is sent, the order
    /// in which senders are told, and errors are the same; a system call is saved for each of them. It pays
    /// with hundreds of clients that keep up, and frames of some kilobytes.
    ///
    /// Only sockets that are CSockStream and not blocking take part. A sender with a send procedure or a
    /// filter ends a batch, since those may take others off the list. Held frames go as ever.
    ///
    /// 0; -1 with errno if the kernel refuses (ENOSYS; EPERM by kernel.io_uring_disabled or in a container;
    /// ENOMEM), and nothing has changed. A filter of system calls that ends the process instead of refusing
    /// does so here. Costs 60 KiB a buffer. In a child after fork(2) the buffer must not be used.
    int SetWriteBatch(unsigned least);

    /// Puts a sender, which must have a socket, at the head of the list. Its own state stays: one that was on
    /// the list before goes on where it stood, but for one that begins with the start cache. The list holds a
    /// reference on it. A sender that is on this list already is left there with a log line at level 3; one
    /// that is on another buffer's asserts. Without memory it is on none, with a line at level 2.
    void AddSender(CMediaStreamSender* sender);

    /// Takes a sender off. When the call returns its socket is not used any more. Without senders the buffer
    /// lets all complete frames go. One that is not on the list is ignored.
    void DelSender(CMediaStreamSender* sender);

    /// Moves a sender of this list to the list of `to`, for example to another camera: it ends the frame that
    /// it is in the middle of, and goes on there with a key frame of each of its channels, so that nothing is
    /// torn and everything after it can be decoded; no gap is told or counted. With a resume policy, and a
    /// start cache there, the first picture comes at once, and so does the move at NEXT_KEY; until then the
    /// sender goes on here. Without either it goes on with the next key frame of `to`.
    ///
    /// From any thread and inside any call-back; it is done when the thread is out of all call-backs, and at
    /// NEXT_KEY on the producer's thread of `to`. No two buffers are locked at a time. The rest of a frame
    /// that is half on the wire is copied. A later call for the same sender takes the place of an earlier one
    /// that is not done. DelSender on either buffer takes back a move that is not done: a product that does
    /// not know calls it on both. False, and nothing is done, for the same buffer, and for NEXT_KEY if `to`
    /// has no start cache or the sender no resume policy. A sender that is not on this list is ignored.
    bool MoveSender(CMediaBuffer& to, CMediaStreamSender* sender, MediaMove when = MediaMove::NOW);

    /// Puts a tap at the head of the list. It stays the caller's; take it off before it goes away. A tap that
    /// is on this list already is left there with a log line at level 3; one on another buffer's asserts.
    /// Without memory it is on none, with a line at level 2.
    void AddLevel2Buffer(CLevel2Buffer_IF* tap);
    /// Takes a tap off. One that is not on the list is ignored.
    void DelLevel2Buffer(CLevel2Buffer_IF* tap);

    /// Releases all frames and empties both lists, with log lines at level 3. Nobody is told.
    void Clear();

    /// Lets the process's shared timer call do_send, each `interval` milliseconds, 100 unless given; the
    /// interval is that of the buffer that started the timer. A pool must exist. A new client that comes
    /// between two frames then begins in the middle of a group of frames, unless it has a resume policy.
    /// Without memory it stays off, with a line at level 2.
    void EnableAutoSend();
    /// With an interval in milliseconds, above 0.
    void EnableAutoSend(unsigned long long interval);
    /// Takes the buffer off the timer, which does not touch it any more when the call returns.
    void DisableAutoSend();

    /// Declares frames of this level, 1 to 10, and above disposable: a frame of such a level is referred to
    /// by frames of higher levels only, and a key frame is never one. A sender that steps ahead leaves them
    /// out first. From the next frame on; 0, as at the start: none is disposable.
    void SetDisposableLevel(int level);

    /// How long frames wait for senders that step ahead, in milliseconds, and how many bytes of them, 10000
    /// and 64 MiB at the start. Beyond that they go, the oldest first; a frame that is half on the wire of a
    /// sender stays. A sender that is that late waits for the next key frame.
    void SetKeepLimits(unsigned keep_ms, unsigned long long most_bytes);

    /// Holds the frames since the last key frame for clients that come, in the same memory and also without a
    /// client: for `keep_ms` milliseconds and up to `most_bytes` bytes. Both must be above 0; else it is off,
    /// as at the start. A sender with a resume policy then has a whole picture at once: it begins inside
    /// AddSender, on the caller's thread, also between two frames and while one is being filled
    /// (CMediaStreamSender::SetStartMode). Frames of a group that is longer or larger than that go all
    /// together, and nothing is held until the next key frame: choose both for the longest group. Releases
    /// come later by as much. May change at any time.
    ///
    /// Until it is past what is held then, such a sender is sent half a megabyte in one turn, up to the end
    /// of a frame. These turns come after those of the others, and after 4 MB no other one begins in that
    /// step: whoever had none is first in the next one. Those that wait for room
    /// (CMediaStreamSender::WaitRoom) do not wait for a step: workers go on with them, for 4 MB between two.
    void SetStartCache(unsigned keep_ms, unsigned long long most_bytes);

    /// Reads the figures of the start cache, under the lock, by a walk over its frames. Fills as much as
    /// `stats->size` says. False if that has no room for the first two.
    bool GetStartStats(MediaStartStats* stats);

    /// Frames that some sender may still want, as of the last frame or tick. Takes no lock.
    int GetBufferNum();

    /// Bytes held, up to the first frame without any.
    unsigned long long GetBufferSize();

    /// Reads the counters, under the lock, by a walk over frames and senders.
    MediaBufferStats GetStats();

private:
    friend struct MediaBufferState;
    MediaBufferState* m_state;  ///< Owned.
};

}  // namespace Orvex::Reticor
