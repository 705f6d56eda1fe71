// FramePackets: frames of benchmarks are a header of their own and bytes that all of them share.
#pragma once

#include <Reticor/MediaPacket.h>

namespace Bench {

/// Holds its header, and goes with it.
template <typename Header>
class HeaderPacket : public Orvex::Reticor::CMediaPacket {
public:
    explicit HeaderPacket(const Header& header) : m_header(header) {}
    int Release() override {
        delete this;
        return 0;
    }
    char* GetBuffer() override { return reinterpret_cast<char*>(&m_header); }

private:
    Header m_header;
};

/// The same bytes for every frame. The bytes are the caller's and outlive it, and it outlives the buffer.
class PayloadPacket : public Orvex::Reticor::CMediaPacket {
public:
    explicit PayloadPacket(char* bytes) : m_bytes(bytes) {}
    int Release() override { return 0; }
    char* GetBuffer() override { return m_bytes; }

private:
    char* const m_bytes;
};

}  // namespace Bench
