// FrameCut: a frame as datagrams.
#pragma once

#include <Reticor/MediaStreamSender.h>
#include <Reticor/SockAddrStorage.h>

#include <cstddef>
#include <cstdint>

#include <Infra/Function.h>

#include "Tool/datagram/FramePace.h"
#include "Tool/frame/MediaFrame.h"

namespace Orvex::Reticor {

class CSockDgram;

/// Where the frames of one sender go on a socket for datagrams, and how they are cut. It knows how far the
/// frame is that it has begun; the sender's cursor, which it is given, always stands where a datagram begins.
///
/// Thread safety: guarded by the lock of the sender's buffer.
class FrameCut {
public:
    using Header = Infra::TFunction2<void, const MediaDatagram&, char*>;
    static constexpr unsigned MOST_HEADER = 64;
    static constexpr unsigned LONGEST = 65527;

    /// A place in a frame's gather list.
    struct Cursor {
        int32_t index;
        int32_t offset;
    };

    FrameCut() = default;
    FrameCut(const FrameCut&) = delete;
    FrameCut& operator=(const FrameCut&) = delete;

    /// Null: the socket's own peer. False if it is not an address.
    bool set_remote(const CSockAddr* remote);
    /// From the next frame on. `payload` 0: a frame is one datagram.
    void set_size(unsigned payload, unsigned header, const Header& function, bool paced);

    /// Before each write: `left` bytes of the frame are to be sent, which are all of it `at_boundary`.
    void prepare(const CFrame& frame, uint64_t left, bool at_boundary);
    /// The cursor has moved otherwise.
    void leave_frame() { m_frame = {}; }

    /// How many datagrams may go now. 0: a pause is due.
    size_t allowed(uint64_t now_us) const {
        const size_t due = m_pace.due(now_us);
        return due > m_frame.index ? due - m_frame.index : 0;
    }
    uint64_t pause_until_us(uint64_t now_us) {
        ++m_stats.pauses;
        return m_pace.next_us(now_us);
    }

    /// What has become of a call of the system.
    struct Sent {
        int bytes = 0;       ///< Of the frame; 0 if nothing can be sent now, -1 if the socket failed.
        bool whole = false;  ///< All that it was given has gone.
    };
    /// Sends up to `most` datagrams from the cursor on, with one call.
    Sent send(CSockDgram& sock, const CFrame& frame, Cursor from, size_t most);

    const MediaDatagramStats& stats() const { return m_stats; }

private:
    class List;

    /// How frames are cut.
    struct Size {
        unsigned payload = 0;
        unsigned header = 0;
        Header function;
    };
    /// The frame on its way.
    struct Begun {
        uint32_t index = 0;  ///< Of the next datagram.
        uint32_t count = 0;
        uint64_t bytes = 0;
        uint64_t payload = 0;
        // By which it is known.
        uint64_t ordinal = 0;
        uint64_t complete_us = 0;
        int channel = 0;
    };

    bool has_begun(const CFrame& frame, uint64_t left, bool at_boundary) const;
    size_t bytes_of(uint32_t index) const;
    bool add(List& list, const CFrame& frame, Cursor& cursor, uint32_t index);
    void write_header(const CFrame& frame, uint32_t index, char* to);
    Sent send_list(CSockDgram& sock, const List& list);

    CSockAddrStorage m_remote;
    bool m_has_remote = false;
    Size m_wanted;
    bool m_has_new_size = false;
    Size m_size;  ///< Of the frame on its way.
    FramePace m_pace;
    Begun m_frame;
    MediaDatagramStats m_stats;
};

}  // namespace Orvex::Reticor
