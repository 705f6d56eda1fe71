// CFrame: the packets of one frame as a ready-made gather list that all senders share.
#pragma once

#include <sys/uio.h>

#include <cstdint>

#include <Reticor/MediaPacket.h>

namespace Orvex::Reticor {

struct SenderRecord;

/// The two halves of a level word. The channel of a word whose top byte is 128 or more is negative.
constexpr int channel_of(int level_word) {
    return level_word >> 24;
}
constexpr int level_of(int level_word) {
    return static_cast<int>(static_cast<uint32_t>(level_word) << 8) >> 8;
}

/// One frame. It is empty, then filling, then live from its last packet on (m_valid 1), then expired or
/// deleted. Created and ended by the buffer's line of frames alone. Nobody but its own operations writes it,
/// with two exceptions: the links, which are those of the line and of the senders, and the list entry at a
/// sender's cursor, which is patched for the time of one write.
///
/// Thread safety: none of its own; all fields are guarded by the mutex of the buffer that owns the frame.
class CFrame {
public:
    static constexpr uint32_t BUFFER_INCREMENT = 32;
    static constexpr int AGE_NEW = -1;
    static constexpr int AGE_EXPIRED = -100;

    CFrame();
    /// Releases all packets, in order, and the information packet.
    virtual ~CFrame();
    CFrame(const CFrame&) = delete;
    CFrame& operator=(const CFrame&) = delete;

    /// Sees to it that one more packet has a place. False, with nothing changed, if there is no memory.
    bool make_room() { return m_packet_num < m_packet_cap || grow(); }
    /// The same for that number of packets more.
    bool make_room_for(uint32_t packets);
    /// Takes a packet, which is the frame's to release from now on. 0; -1, and the packet stays the caller's,
    /// if there is no memory, which there is after make_room.
    int Put(CMediaPacket* packet, int len, int mark, int level);
    /// Takes the information packet in place of an earlier one, which is released. `shown` is what a product
    /// is told of it, if that is another one. Always 0.
    int PutInfo(CMediaPacket* packet, int arg, CMediaPacket* shown = nullptr);
    /// Releases everything and makes the frame an empty one, the arrays keep their size.
    void Clear();

    /// It is complete: gets its place in the stream, and its number and place on its channel.
    void place(uint64_t begin, uint64_t ordinal, uint64_t channel_begin) {
        m_begin = begin;
        m_ordinal = ordinal;
        m_channel_begin = channel_begin;
    }
    void set_key() { m_key_mask = channel_bit(); }
    /// It was lost before it could be put: it has a level word and a length, and no packets.
    void set_lost(int level_word, int64_t bytes) {
        m_level = level_word;
        m_frame_len = bytes;
    }
    /// It is offered to senders from now on.
    void offer(uint64_t now_us) { m_complete_us = now_us; }
    void grow_older() { ++m_age; }
    /// A sending step, for a frame without a byte. Gives their number.
    uint32_t count_hollow_step() { return ++m_hollow_steps; }
    void expire() {
        m_valid = 0;
        m_age = AGE_EXPIRED;
    }

    /// For a frame with a part of another one's packets: the send procedure is told the other one's length
    /// and number.
    void tell_as(const CFrame& other) {
        m_frame_len = other.m_frame_len;
        m_info_arg = other.m_info_arg;
        m_number = other.m_number;
    }
    /// Its number among all frames of the process, for those who trace it.
    void number(uint64_t number) { m_number = number; }

    /// Its place among the frames that others need, and whether it is one.
    void place_among_needed(uint64_t before, bool disposable) {
        m_needed_before = before;
        m_disposable = disposable;
    }
    /// Its number among all frames that were kept, and what they were long before it.
    void place_among_kept(uint64_t number, uint64_t begin) {
        m_kept_number = number;
        m_kept_begin = begin;
    }
    void set_kept(bool kept) { m_kept = kept; }
    void leave_list() { m_left_list = true; }
    void add_holder() { ++m_holders; }
    void remove_holder() { --m_holders; }

    void add_sender() { ++m_sender_count; }
    void remove_sender() { --m_sender_count; }
    /// A sender has written these bytes of it; fewer than none take some back.
    void add_sent(int64_t bytes) { m_sent_len += bytes; }
    /// A sender is through with it: its bytes are not those of somebody in the middle any more.
    void end_sent() { m_sent_len -= m_frame_len; }

    /// Senders that wait for room and stand here are looked at again when this one is late for them, or when
    /// another key frame has come.
    void looked_late(uint64_t again_us, uint64_t key_frames) {
        m_late_us = again_us;
        m_late_keys = key_frames;
    }
    void look_late_again() { m_late_us = 0; }
    bool is_to_be_looked_at(uint64_t now_us, uint64_t key_frames) const {
        return now_us > m_late_us || key_frames != m_late_keys;
    }

    int channel() const { return channel_of(m_level); }
    int level() const { return level_of(m_level); }
    /// The frame's channel as a bit of the senders' masks. A complete frame's channel is 0 to 7.
    uint8_t channel_bit() const { return static_cast<uint8_t>(1U << (channel() & 31)); }
    bool is_key() const { return (m_key_mask & channel_bit()) != 0; }
    /// Packets arrive: neither complete nor expired.
    bool is_filling() const { return m_valid == 0 && m_age == AGE_NEW; }
    /// Complete without a byte: nobody can be sent such a frame.
    bool is_hollow() const { return m_valid != 0 && m_frame_len < 1; }

    iovec* m_iovec = m_first_iovec;            ///< m_packet_cap entries.
    CMediaPacket** m_packet = m_first_packet;  ///< m_packet_cap entries.
    int64_t m_frame_len = 0;
    /// Bytes that were written by the senders that are in the middle of the frame, all together.
    int64_t m_sent_len = 0;
    uint32_t m_packet_cap = BUFFER_INCREMENT;
    uint32_t m_packet_num = 0;
    int32_t m_mark = 0;   ///< Of the last packet.
    int32_t m_level = 1;  ///< The level word of the last packet.
    int32_t m_valid = 0;  ///< 1 from completion to expiry.
    int32_t m_age = AGE_NEW;
    uint8_t m_key_mask = 0;
    // For senders that step ahead: see KeptLine and ChannelBook.
    bool m_left_list = false;   ///< It is not on the buffer's list any more.
    bool m_kept = false;        ///< On the buffer's kept line.
    bool m_disposable = false;  ///< No other frame needs it, but those of higher levels.
    CFrame* m_next = nullptr;
    CMediaPacket* m_info_packet = nullptr;
    CMediaPacket* m_info_shown = nullptr;  ///< As products know it.
    int32_t m_info_arg = 0;
    /// Senders that took the frame and did not finish it, those that left meanwhile included. As long as it
    /// is not 0 the frame does not expire. It can be too high and too low because of senders that leave, join
    /// twice or hand their socket over, so nothing that is about memory goes by it: see m_standing.
    int32_t m_sender_count = 0;

    /// The senders whose cursor is in this frame, on a list or not.
    SenderRecord* m_standing = nullptr;
    uint64_t m_begin = 0;          ///< Position of the first byte in the buffer's stream.
    uint64_t m_ordinal = 0;        ///< Number on its channel, from 1 on.
    uint64_t m_channel_begin = 0;  ///< Bytes that its channel has had before it.
    uint64_t m_complete_us = 0;    ///< When it became complete.
    uint32_t m_hollow_steps = 0;   ///< Sending steps since then, for a frame without a byte.
    uint32_t m_holders = 0;        ///< Senders with their cursor here that keep it on the kept line.
    CFrame* m_kept_next = nullptr;
    uint64_t m_needed_before = 0;  ///< Frames of its channel before it that others need.
    uint64_t m_kept_number = 0;
    uint64_t m_kept_begin = 0;
    uint64_t m_number = 0;  ///< 0: nobody traced when it was put.

private:
    uint64_t m_late_us = 0;
    uint64_t m_late_keys = 0;

    bool grow();

    bool m_grew = false;  ///< A trace line tells of it, with the next packet.

    /// Room for as many packets as a frame usually has, so that it is one piece of memory.
    iovec m_first_iovec[BUFFER_INCREMENT];
    CMediaPacket* m_first_packet[BUFFER_INCREMENT];
};

}  // namespace Orvex::Reticor
