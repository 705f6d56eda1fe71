// Packets: the memory that the media buffer holds for the clients.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include <Reticor/MediaPacket.h>

namespace relay {

/// Bytes for the wire. The buffer owns it from `Put` on, all clients share it, and it goes when the last of
/// them is through.
class DataPacket : public Orvex::Reticor::CMediaPacket {
public:
    explicit DataPacket(std::vector<uint8_t>&& bytes) : m_bytes(std::move(bytes)) {}

    int size() const { return static_cast<int>(m_bytes.size()); }
    int Release() override {
        delete this;
        return 0;
    }
    char* GetBuffer() override { return reinterpret_cast<char*>(m_bytes.data()); }

private:
    std::vector<uint8_t> m_bytes;
};

}  // namespace relay
