// Packets: the memory that the media buffer holds for the clients.
#pragma once

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include <Reticor/MediaPacket.h>

namespace relay {

/// Bytes for the wire. The buffer owns it from `Put` on, all clients share it, and it goes when the last of
/// them is through.
class DataPacket : public Orvex::Reticor::CMediaPacket {
public:
    using Shared = std::shared_ptr<const std::vector<uint8_t>>;

    explicit DataPacket(std::vector<uint8_t>&& bytes)
        : DataPacket(std::make_shared<const std::vector<uint8_t>>(std::move(bytes))) {}

    /// The same bytes may be held elsewhere, too.
    explicit DataPacket(Shared bytes) : m_bytes(std::move(bytes)) {}

    int size() const { return static_cast<int>(m_bytes->size()); }
    int Release() override {
        delete this;
        return 0;
    }
    /// Senders read what it points to, and never write.
    char* GetBuffer() override { return const_cast<char*>(reinterpret_cast<const char*>(m_bytes->data())); }

private:
    Shared m_bytes;
};

}  // namespace relay
