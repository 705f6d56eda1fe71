// CMediaPacket, CLevel2Buffer_IF: a block of media bytes, and a tap that sees every block of a CMediaBuffer.
#pragma once

#include <cstdint>

#include <Reticor/Export.h>

namespace Orvex::Reticor {

/// The last packet of a frame carries this mark; packets before it carry MEDIA_MARK_MORE.
constexpr int MEDIA_MARK_MORE = 0;
constexpr int MEDIA_MARK_LAST = 1;

/// The level word of a packet: the channel (0 to 7) in bits 31 to 24, the importance (1, the most important,
/// to 10, the least) in bits 23 to 0.
constexpr int mediaLevel(int channel, int level) {
    return static_cast<int>((static_cast<uint32_t>(channel) << 24) |
                            (static_cast<uint32_t>(level) & 0xFFFFFFU));
}

/// One block of media bytes. Products derive from it; the library never copies the bytes.
///
/// Ownership: a packet that CMediaBuffer::Put takes belongs to the buffer until the one call of Release, no
/// matter how many senders share it. Release comes when the slowest sender is past the packet's frame, when
/// the frame grows too old, or when the buffer is cleared; at the latest in the buffer's destructor.
///
/// Threads: GetBuffer runs inside Put. Release runs inside any operation of the buffer that lets frames go,
/// on whichever thread called it, the shared sender timer's worker among them. Both run with the buffer's
/// lock held: see CMediaBuffer for what they must not do.
class RETICOR_API CMediaPacket {
public:
    /// Holds nothing: the bytes are the product's.
    CMediaPacket();
    /// Nothing is copied; a copy is a packet like any other.
    CMediaPacket(const CMediaPacket& other);
    /// Nothing is copied.
    CMediaPacket& operator=(const CMediaPacket& other);
    virtual ~CMediaPacket();

    /// The library hands the packet back: free it, return it to its pool, or drop a count on it. The result
    /// is ignored.
    virtual int Release() = 0;

    /// The address of the bytes, which must not move or change until Release. Called once for each packet.
    virtual char* GetBuffer() = 0;
};

/// Sees every packet that enters a CMediaBuffer, in the order of the calls of Put and before anything else is
/// done with it, whether or not anybody is sent the frame. For recorders and meters.
///
/// Ownership: the tap stays the caller's and must outlive its time on the list, see
/// CMediaBuffer::AddLevel2Buffer. A tap is on one list at most.
class RETICOR_API CLevel2Buffer_IF {
public:
    /// On no list.
    CLevel2Buffer_IF();
    /// The link is copied along: the copy is on no list itself, and is to be added like any other tap.
    CLevel2Buffer_IF(const CLevel2Buffer_IF& other);
    /// As the copy constructor. Not while this one is on a list.
    CLevel2Buffer_IF& operator=(const CLevel2Buffer_IF& other);
    virtual ~CLevel2Buffer_IF();

    /// `level` is the word as the producer gave it, not yet clamped. The packet belongs to the buffer: keep
    /// it beyond the call only if its class has a count of its own. A negative result takes the tap off the
    /// list. Runs with the buffer's lock held: see CMediaBuffer for what it must not do.
    virtual int Put(CMediaPacket* packet, int len, int mark, int level) = 0;

protected:
    friend class TapLine;

    CLevel2Buffer_IF* m_next = nullptr;  ///< The next tap of the list; the buffer's.
};

}  // namespace Orvex::Reticor
