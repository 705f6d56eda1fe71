// TsFramer: finds the packets of a transport stream in a stream of bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace relay {

/// Packets lie one after the other and begin with 0x47. Where that is not so, bytes are skipped up to a
/// place from which 0x47 stands at the head of three packets in a row: one such byte alone is in every
/// picture.
class TsFramer {
public:
    TsFramer();

    /// Where the next bytes of the input go, and how many of them. Always room for one packet at least, once
    /// `next` has given null. Ends the life of what `next` gave.
    uint8_t* room(size_t& size);
    void filled(size_t size) { m_end += size; }

    /// The input has ended: what is left need not be followed by anything.
    void finish() { m_finished = true; }

    /// The next packet, which may be changed in place; null if more bytes are needed.
    uint8_t* next();

    /// Forgets the bytes of an incomplete packet, and begins anew.
    void reset();

    /// Bytes that belonged to no packet.
    uint64_t skipped() const { return m_skipped; }

private:
    bool standsHere() const;
    bool isHeadAt(size_t position) const;

    std::vector<uint8_t> m_bytes;
    size_t m_begin = 0;
    size_t m_end = 0;
    bool m_synchronous = false;
    bool m_finished = false;
    uint64_t m_skipped = 0;
};

}  // namespace relay
