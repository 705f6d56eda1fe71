// CMediaStreamSender: one client of a CMediaBuffer.
#pragma once

#include <cstdint>

#include <Infra/Function.h>
#include <Reticor/Export.h>
#include <Reticor/NetHandler.h>

namespace Orvex::Reticor {

class CFrame;
class CMediaPacket;
class CSock;
class CSockAddr;
struct SenderVerdict;
struct SenderRecord;

/// The message that CMediaStreamSender posts when its socket has failed or stalled.
constexpr unsigned int MEDIA_MSG_SOCKET_FAILED = 2;

/// What a sender with a resume policy does when it is late.
enum class MediaResume {
    AHEAD,   ///< Steps ahead to the newest key frame of the channel that is there; without one it goes on.
    STRICT,  ///< Begins nothing above the limit, and waits for a key frame below it.
};

/// Where a sender with a resume policy begins in a buffer with a start cache.
enum class MediaStart {
    BURST,     ///< At the newest key frame that is held, at once: as fast as the link goes, then live.
    NEXT_KEY,  ///< At the next key frame.
};

/// What a sender's filter says of a frame.
enum class MediaVerdict {
    SEND,  ///< It is sent.
    /// It is left out, and no frame after it needs it: nothing is waited for.
    SKIP,
    /// It is left out, and what comes after it needs it, or is not wanted either: nothing more of its channel
    /// is sent, nor asked about, before the channel's next key frame.
    WAIT_KEY,
};

/// The frame that a filter is asked about. Later versions add fields at the end.
struct MediaOffer {
    int channel = 0;               ///< 0 to 7.
    int level = 1;                 ///< 1 to 10.
    bool key = false;              ///< One can begin with it.
    uint64_t bytes = 0;            ///< Its length.
    uint64_t age_us = 0;           ///< Since it was complete: how late the client is.
    CMediaPacket* info = nullptr;  ///< Of CMediaBuffer::PutFrameInfo, the buffer's; null without.
    int info_arg = 0;              ///< And its number.
};

/// What has become of one client. Counters only rise, from Create on.
struct MediaSenderStats {
    uint64_t frames = 0;  ///< Frames delivered whole.
    uint64_t bytes = 0;   ///< Bytes of frames that the socket took.
    /// Bytes of the buffer's stream that lie before the sender. Frames that were thrown away under a sender
    /// without a resume policy stay in here for as long as it is attached.
    uint64_t backlog_bytes = 0;
    uint64_t lag_us = 0;      ///< Age of the frame that it stands on; 0 when it has caught up.
    uint64_t blocked_us = 0;  ///< Time since the first write that would block, without a finished frame.
    /// Frames that were gone when their turn came: too old for their level, or lost to other data that
    /// blocked. Counted when the next frame of the channel goes out.
    uint64_t holes = 0;
    uint64_t hole_frames = 0;  ///< The frames of all holes.
    uint64_t hole_bytes = 0;   ///< Their bytes.
    /// What the resume policy stepped over, holes not included; and how often it resumed after a gap of
    /// either kind.
    uint64_t skips = 0;
    uint64_t skipped_frames = 0;  ///< The frames stepped over.
    uint64_t skipped_bytes = 0;   ///< Their bytes.
    /// Disposable frames that were left out, and how many times that began anew.
    uint64_t thinnings = 0;
    uint64_t thinned_frames = 0;  ///< The frames left out.
    uint64_t thinned_bytes = 0;   ///< Their bytes.
    bool joined = false;          ///< It has a place in the stream.
    bool listed = false;          ///< It is on a buffer's list.
};

/// How a sender waited for room, and what it gathered. Counters only rise, from Create on. Later versions add
/// fields at the end: `size` says how many bytes were filled.
struct MediaRoomStats {
    uint32_t size = 0;     ///< Bytes that are filled, this field included.
    uint32_t version = 1;  ///< Of this struct.
    uint64_t full_tries =
        0;                 ///< Writes that found the socket full, whether or not the sender waits for room.
    uint64_t waits = 0;    ///< How often it began to wait for room.
    uint64_t resumes = 0;  ///< How often it went on since there was room.
    /// How often there was no place to wait in, so that it went on trying at each frame.
    uint64_t without_place = 0;
    uint64_t steps_ahead = 0;      ///< Times that it stepped ahead without a write while it waited.
    uint64_t gathers = 0;          ///< Writes with more than one frame.
    uint64_t gathered_frames = 0;  ///< Frames that those wrote, whole or in part.
    uint64_t waiting = 0;          ///< 1: it waits for room at this moment.
};

/// What a sender's filter was asked, and kept back. Counters only rise, from Create on. Later versions add
/// fields at the end: `size` says how many bytes were filled.
struct MediaFilterStats {
    uint32_t size = 0;     ///< Bytes that are filled, this field included.
    uint32_t version = 1;  ///< Of this struct.
    uint64_t asked = 0;    ///< Frames that it was asked about.
    /// Frames that it kept from the client, those for whose channel it had to wait among them. They are
    /// neither holes nor skipped.
    uint64_t frames = 0;
    uint64_t bytes = 0;  ///< Their bytes.
};

/// One of the datagrams into which a frame is cut. Later versions add fields at the end.
struct MediaDatagram {
    uint64_t number = 0;           ///< Datagrams that the sender has sent before it.
    uint32_t index = 0;            ///< Among those of its frame, from 0 on.
    uint32_t count = 0;            ///< All of its frame.
    uint64_t offset = 0;           ///< Where its bytes begin in the frame.
    uint32_t bytes = 0;            ///< Of the frame, that is without the header.
    uint64_t frame_bytes = 0;      ///< Length of the frame.
    uint64_t complete_us = 0;      ///< When the frame was complete, by Infra::CTime.
    int channel = 0;               ///< 0 to 7.
    int level = 1;                 ///< 1 to 10.
    bool key = false;              ///< One can begin with the frame.
    CMediaPacket* info = nullptr;  ///< Of CMediaBuffer::PutFrameInfo, the buffer's; null without.
    int info_arg = 0;              ///< And its number.
};

/// What a sender has sent in datagrams by SetRemote or SetDatagrams. Counters only rise, from Create on.
/// Later versions add fields at the end: `size` says how many bytes were filled.
struct MediaDatagramStats {
    uint32_t size = 0;       ///< Bytes that are filled, this field included.
    uint32_t version = 1;    ///< Of this struct.
    uint64_t datagrams = 0;  ///< That the socket took.
    uint64_t bytes = 0;      ///< Their bytes, headers included.
    uint64_t writes = 0;     ///< Calls of the system that took some.
    uint64_t pauses = 0;     ///< How often a frame waited for its pace.
};

/// What the attachment of a skip message says.
struct MediaSkip {
    uint64_t frames;  ///< Frames that the client did not get, up to 2^23 - 1.
    uint64_t bytes;   ///< Their bytes, up to 2^40 - 1.
    bool thinned;     ///< They were disposable and left out here and there, and the picture went on.

    /// Reads the attachment.
    static constexpr MediaSkip of(long attach) {
        return {static_cast<uint64_t>(attach) >> 40 & 0x7FFFFFULL,
                static_cast<uint64_t>(attach) & 0xFFFFFFFFFFULL, attach < 0};
    }
};

/// Writes the frames of a CMediaBuffer to one socket, at the socket's own speed, and never blocks. It has no
/// thread: it writes when the buffer tells it to, which is when a frame is complete and on each tick of the
/// shared timer (CMediaBuffer::EnableAutoSend), and, if WaitRoom is on, as soon as a full socket has room.
///
/// Life: Create, Attach, WaitException, perhaps SetSendChannel and SetSendTimeout, CMediaBuffer::AddSender;
/// frames flow; then always in this order, whatever has happened: CMediaBuffer::DelSender, Detach, close the
/// socket, Close. The list holds a reference, so a sender that is closed while it is on a list lives on, and
/// goes on writing, until it is taken off. A socket must not be closed or deleted before DelSender: the next
/// frame would go to whoever has got its number.
///
/// A sender that is taken off and added again goes on where it stood. Of a frame that was let go meanwhile it
/// has kept the unwritten rest if it was in the middle, and ends it before it takes a new one. If there was
/// no memory to keep it, the socket counts as failed.
///
/// One sender, one connection: the place in the frame is the sender's and not the socket's. A sender that is
/// attached to another connection in the middle of a frame goes on in the middle there. Make a new sender for
/// a new connection.
///
/// Thread safety: operations may be called from any thread, and none blocks longer than the buffer's lock is
/// held. Attach and Detach are for a sender that is on no list. The setters take no lock, but for
/// SetSendTimeout of a sender that waits for room: the value is used from the next frame or write on.
class RETICOR_API CMediaStreamSender : public CNetHandler {
public:
    /// A sender that is attached to nothing. A pool must exist. Null, with a line at level 2, if there is no
    /// memory.
    static CMediaStreamSender* Create();

    /// Takes `stream`, of type SOCK_TYPE_STREAM, SOCK_TYPE_DGRAM, SOCK_TYPE_SSL_STREAM or
    /// SOCK_TYPE_SIMULATOR; sending to another type asserts. The socket stays the caller's and is never
    /// closed here. A frame larger than a datagram makes a datagram socket fail, if it is not cut
    /// (SetDatagrams), and so does an answer of the peer's host that nobody listens there. Always 0.
    int Attach(CSock* stream);

    /// Gives the socket back, null if there was none. A sender on a list must have a socket: the next frame
    /// asserts otherwise.
    CSock* Detach();

    /// For the buffer: writes what the socket takes, `frame` being the frame on offer. Gives the position in
    /// the stream, or -1 when the socket failed. `size` is not used.
    long long Send(CFrame* frame, unsigned long long size);

    /// Keeps up to 4096 bytes in all that go out between two frames, before the next one. What does not fit
    /// whole is dropped in silence, and without memory with a line at level 2; a `len` below 1 is ignored.
    /// While such bytes are blocked no frame is begun, and a sender that had caught up loses the frames that
    /// are offered meanwhile.
    void SendOtherData(const char* data, int len);

    /// For handing the socket to another writer without tearing a packet: copies the unwritten rest of a
    /// packet that is half on the wire to `buffer` and counts it as written. Gives its length; 0 if no packet
    /// is half-written; -1, and nothing changes, if it is longer than `len`. Call DelSender first, then this,
    /// write the bytes, use the socket, and AddSender to go on.
    int GetTailPacket(char* buffer, int len);

    /// `proc` is called each time that this sender has finished a frame, with the packet and the number of
    /// CMediaBuffer::PutFrameInfo (null and 0 without) and the frame's length in bytes. It runs with the
    /// buffer's lock held: see CMediaBuffer for what it must not do. It may be replaced from inside. An
    /// object that it is bound to must outlive a call that has already begun. False, with a line at level 2,
    /// and no procedure is called any more, if there is no memory.
    bool AttachSendProc(Infra::TFunction3<void, CMediaPacket*, int, int> proc);
    /// No procedure is called from the next frame on. Always true.
    bool DetachSendProc();

    /// `filter` is asked about each frame that this sender has come to and would send: of a channel that it
    /// has chosen, and not stepped over or waited out by its resume policy. So a product chooses by itself,
    /// for each client, for example which of several qualities on channels of their own it gets. It is
    /// asked once about a frame, when the sender comes to it. The first byte may go out later, and a sender
    /// with a resume policy may step over the frame all the same if that takes too long: what was sent is
    /// told by AttachSendProc. A sender that is taken off and added again asks anew about the frame that it
    /// stands at.
    ///
    /// It runs with the buffer's lock held, on the thread of the operation that lets the sender go on: the
    /// producer's, a tick's, a worker's (WaitRoom), the one that calls AddSender. See CMediaBuffer for what
    /// it must not do; and it must not call Send or GetTailPacket of this sender. It may take the sender
    /// off, or move it: nothing more is written then. It may be replaced from inside. An object that it is
    /// bound to must outlive a call that has already begun. `offer` and what it points to are valid inside
    /// the call alone. Frames of a sender with a filter go out one by one (SetGather). Holds from the next
    /// frame on. False, with a line at level 2, and no filter is asked any more, if there is no memory.
    bool AttachFilter(Infra::TFunction1<MediaVerdict, const MediaOffer&> filter);
    /// No filter is asked from the next frame on. A channel that waits for a key frame goes on waiting.
    /// Always true.
    bool DetachFilter();
    /// Fills `stats`, of which the caller has `size` bytes, under the buffer's lock. 0; -1 for a null pointer
    /// or a size below 8.
    int GetFilterStats(MediaFilterStats* stats, unsigned int size);

    /// Reports a stall when for this many seconds the socket has taken no whole frame. 0xFFFFFFFF at the
    /// start, which is never. A stalled sender stays on its list and goes on trying.
    void SetSendTimeout(unsigned int seconds);

    /// Chooses channels, 0 to 7; beyond that it asserts. The first call leaves that channel alone, further
    /// ones add to it, -1 chooses all, as at the start.
    void SetSendChannel(int channel);
    /// Takes a channel, 0 to 7, out of the choice.
    void DisableSendChannel(int channel);

    /// The handler `id` gets one message MEDIA_MSG_SOCKET_FAILED, attachment 0, when the socket fails (the
    /// sender is off its list then) or stalls (it is still on it): answer both with the order above. 0 is
    /// nobody. Reported once; call again for another report.
    void WaitException(long id);

    /// Lets a client that is slow see whole pictures. At the beginning of a frame that is older than
    /// `max_lag_ms` it steps ahead: over all frames up to the newest key frame of that channel that is in the
    /// buffer, however old that is. If there is none it goes on, late. After a gap it waits for a key frame.
    /// Frames wait for it by time and not by ticks (CMediaBuffer::SetKeepLimits).
    ///
    /// Of disposable frames (CMediaBuffer::SetDisposableLevel) it leaves out those that are older than half
    /// the limit; a key frame that took longer than that to send gives them more. A channel whose last two
    /// frames were key frames, as of sound, follows: it does none of that while the client gets another
    /// channel, one that predicts.
    ///
    /// `hard_lag_ms`, 0 is none, is for clients to whom no picture is better than a late one: above it
    /// nothing is begun but a key frame that is the newest.
    ///
    /// With STRICT the sender begins nothing that is older than `max_lag_ms`, a key frame neither, and waits
    /// for the next key frame then and after a gap, on each channel by itself; frames wait as for others, and
    /// `hard_lag_ms` does not count.
    ///
    /// In both modes the client joins at a complete key frame only, and leaves no slack in the buffer. 0, as
    /// at the start, is off: frames go out until they are too old for their level, gaps or not. May change at
    /// any time, and holds from the next frame or tick on.
    void SetResumePolicy(unsigned max_lag_ms, MediaResume mode = MediaResume::AHEAD,
                         unsigned hard_lag_ms = 0);

    /// Keeps what lies unsent in the socket small, since a frame that the kernel has cannot be stepped over
    /// any more: about `limit_ms` milliseconds of what the link carries, 16 KiB at least. The rate is
    /// measured while the socket is full. What is on its way to the peer, and in its receive buffer, is not a
    /// part of it, so that a fast link is not slowed down. For TCP sockets. 0, as at the start, is the
    /// system's own bound. May change at any time; also sets the bound of an attached socket.
    void SetKernelLag(unsigned int limit_ms);

    /// Calls a sender stalled (SetSendTimeout) only if for that time its peer has acknowledged fewer than
    /// `bytes` bytes, and no frame was finished: whoever reads slowly, but steadily, stays, and whoever takes
    /// nothing or trickles does not. Acknowledgements come in half windows: the time-out must be longer than
    /// half the peer's receive window takes at its rate, with 216 KB and 10 KB/s 11 seconds. And the time
    /// begins anew with AddSender: a sender that was taken off on purpose is not stalled at its first blocked
    /// write. 0, as at the start, is off: a frame must be finished in that time. Where the socket is not a
    /// TCP one, what was written counts. May change at any time.
    void SetStallFloor(unsigned int bytes = 64 * 1024);

    /// Where the sender begins that comes to a buffer with a start cache (CMediaBuffer::SetStartCache), if it
    /// has a resume policy. BURST at the start. What is sent before it has caught up is subject to the
    /// policy; but the strict mode and the hard bound, for which what is held is too late, begin when it has
    /// caught up or comes to the next key frame. In both modes the channels begin together: sound with the
    /// last frame before the picture. May change at any time, and holds for the next AddSender.
    void SetStartMode(MediaStart mode);

    /// The handler `id` gets a message `msg` when the resume policy has stepped over a gap and the next frame
    /// goes out; and one for each episode of disposable frames left out, when none was for a second or, if
    /// that is longer, the limit. MediaSkip::of reads the attachment. 0 is nobody.
    void WaitSkip(long id, unsigned int msg);

    /// Reads the counters, under the buffer's lock.
    MediaSenderStats GetStats();

    /// Has the sender wait for room: a socket that took less than it was given is not tried again until it
    /// has room, neither by Put nor by a tick, and then this sender alone goes on, on a worker. `owner` is
    /// the id of the handler that reads from the socket, on which it is registered with SOCK_READ; its
    /// `handle_output` calls the sender's. 0, as at the start, switches that off; may change at any time, and
    /// takes the buffer's lock.
    ///
    /// Frames that the sender is past are released by the next frame or tick. A sender with a resume policy
    /// steps ahead, without a write, also while it waits. One that catches up with a start cache
    /// (CMediaBuffer::SetStartCache) waits after each share of what is held, and so has its next one on a
    /// worker. The limit of SetSendTimeout is kept by a timer, from the write on that the socket did not take
    /// whole.
    ///
    /// Where it cannot wait it goes on trying as without this, and counts it (GetRoomStats): the owner is
    /// closed or does not read the socket, the pool's write set is full, the socket is registered for writing
    /// by somebody else, as for a CStreamSender that has not drained, or the timer cannot be had. One
    /// descriptor has one writer.
    ///
    /// The interest in room ends whenever the sender leaves its list, also inside a call-back. An idle
    /// time-out of the owner runs on while the sender begins to wait; when there is room, the result of the
    /// owner's `handle_output` counts as for any other.
    ///
    /// 0; -1, and nothing changes, if `owner` is not an open handler, or the socket is a CSimulatorStream,
    /// which always has room.
    int WaitRoom(long owner);

    /// The owner calls this from its own `handle_output`, with the same descriptor. It writes, so send
    /// procedures, and `Release` of packets if the socket fails, run inside, with the buffer's lock held:
    /// call it without a lock that one of these takes, and without one under which the product calls the
    /// buffer. If another thread works in the buffer, it does not wait: that thread lets the sender go on.
    /// The sender must be there until this returns: close it in the owner's `handle_close`, before which a
    /// worker may be on its way here, or hold a reference. 0; -1 if the sender does not wait for room.
    int handle_output(int handle) override;

    /// Lets one write take up to 16 frames, or 1 MiB, instead of one frame, where the sender gets them one
    /// after another for certain; not to a datagram socket. Everything else stays: the bytes, the procedure's
    /// calls, the counters. What a procedure asks for while the frames of one write are credited to it comes
    /// after all of them. False at the start; from the next write on.
    void SetGather(bool gathers);

    /// Where the datagrams of this sender go; its socket, of type SOCK_TYPE_DGRAM, can serve others too. A
    /// group or a broadcast address is one like any other here. On a socket that is not connected the sender
    /// does not hear of a host that answers that nobody listens. Null, as at the start: to the socket's own
    /// peer, which must not be a group then unless SetDatagrams is used. The address is copied. 0; -1, and
    /// nothing changes, if it is not a valid one, or there is no memory. Takes the buffer's lock; holds from
    /// the next write on.
    int SetRemote(const CSockAddr* remote);

    /// Cuts frames into datagrams of `payload` bytes, the last one of a frame shorter, on a socket of type
    /// SOCK_TYPE_DGRAM: 1200 fits any usual path. Nothing is copied, and one system call takes many
    /// (CSockDgram::SendSegments). 0, as at the start: one frame, one datagram.
    ///
    /// `header_bytes`, up to 64, stand before the payload of each one, and `header` writes them: a sequence
    /// number, a time stamp, whatever the receivers need to put frames together and to see what was lost. It
    /// is called for each datagram right before it goes, and again for one that the socket did not take. It
    /// runs with the buffer's lock held and calls neither the buffer nor a sender; an object that it is bound
    /// to must outlive a call that has already begun.
    ///
    /// `paced`: a receiver's buffer takes some 90 datagrams of this size, and what it has no room for is
    /// lost, while sockets for datagrams hardly ever are full. So 16 go at once, and the others within half
    /// the time between the last two frames of the channel (20 ms for the first one, 50 ms at most), in
    /// steps of the timers' 5 ms. A frame that is older than that goes at once, so begin with
    /// MediaStart::NEXT_KEY where there is a start cache.
    ///
    /// Counted is what was sent, and a policy sees no lag where the network loses: with datagrams that is for
    /// the receivers to tell. MediaSenderStats counts frames and their bytes without the headers. 0; -1, and
    /// nothing changes, if there is a header without a function or a payload, it is longer than 64, a
    /// datagram would be longer than 65527, or there is no memory. Takes the buffer's lock; holds from the
    /// next frame on.
    int SetDatagrams(unsigned int payload, unsigned int header_bytes = 0,
                     Infra::TFunction2<void, const MediaDatagram&, char*> header = {}, bool paced = true);
    /// Fills `stats`, of which the caller has `size` bytes, under the buffer's lock. 0; -1 for a null pointer
    /// or a size below 8.
    int GetDatagramStats(MediaDatagramStats* stats, unsigned int size);

    /// Fills `stats`, of which the caller has `size` bytes, under the buffer's lock. 0; -1 for a null pointer
    /// or a size below 8.
    int GetRoomStats(MediaRoomStats* stats, unsigned int size);

    /// Looks how this client fares, and why (MediaVerdicts.h): in figures and in a sentence. Ask again and
    /// again: what is told is of the time since the first look. Fills as much as `verdict.size` says, under
    /// the buffer's lock. Of a sender that is on no list, how it fared when it left the last one, if it was
    /// looked at until then. 0; -1 for a size that has no room for the first two fields.
    int GetVerdict(SenderVerdict& verdict);

    /// The library's: looks whether the sender has stalled.
    int64_t handle_timeout(long id) override;

    /// The library's: ends the object.
    int handle_close(CNetHandler* self) override;

private:
    RETICOR_HIDDEN CMediaStreamSender();
    RETICOR_HIDDEN ~CMediaStreamSender() override;

    friend struct SenderRecord;
    SenderRecord* m_state;  ///< Owned.
};

}  // namespace Orvex::Reticor
