// LanePacket: the last holder lets the producer's packet go.
#include "Tool/lane/LanePacket.h"

#include <new>
#include <utility>

#include <Infra/HeldLocks.h>

namespace Orvex::Reticor {

LanePacket::~LanePacket() = default;

void LanePacket::fill(const Parts& parts, uint32_t holders, bool asks) {
    m_parts = parts;
    m_bytes = asks ? parts.packet->GetBuffer() : nullptr;
    m_next = nullptr;
    m_holders.store(holders, std::memory_order_relaxed);
    m_frame_bytes = 0;
    m_complete_us = 0;
    m_packets = 0;
    m_info = nullptr;
    m_info_arg = 0;
}

void LanePacket::set_frame(uint64_t bytes, uint64_t complete_us, uint32_t packets, LanePacket* info,
                           int info_arg) {
    m_frame_bytes = bytes;
    m_complete_us = complete_us;
    m_packets = packets;
    m_info = info;
    m_info_arg = info_arg;
}

// What other lanes have read of the bytes comes before the producer has them back.
int LanePacket::Release() {
    if (m_holders.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        CMediaPacket* const packet = std::exchange(m_parts.packet, nullptr);
        m_store.give_back(*this);
        INFRA_PROMISE(RELEASE);
        packet->Release();
    }
    return 0;
}

// The links are read first: a packet that was let go may be in another frame.
void LanePacket::release_frame() {
    LanePacket* const info = m_info;
    for (LanePacket* packet = this; packet != nullptr;) {
        LanePacket* const next = packet->m_next;
        packet->Release();
        packet = next;
    }
    if (info != nullptr) {
        info->Release();
    }
}

int LanePacket::frame_level() const {
    const LanePacket* last = this;
    while (last->m_next != nullptr) {
        last = last->m_next;
    }
    return last->level();
}

LanePacketStore::~LanePacketStore() {
    end(m_own);
    end(m_back.load(std::memory_order_acquire));
}

void LanePacketStore::end(LanePacket* chain) {
    while (chain != nullptr) {
        delete std::exchange(chain, chain->m_next);
    }
}

LanePacket* LanePacketStore::take() {
    if (m_own == nullptr) {
        m_own = m_back.exchange(nullptr, std::memory_order_acquire);
    }
    if (m_own != nullptr) {
        return std::exchange(m_own, m_own->m_next);
    }
    auto* const packet = new (std::nothrow) LanePacket(*this);
    m_made.fetch_add(packet != nullptr ? 1 : 0, std::memory_order_relaxed);
    return packet;
}

// Nobody takes a single one out of the chain, so a packet cannot come back to its head unnoticed.
void LanePacketStore::give_back(LanePacket& packet) {
    LanePacket* head = m_back.load(std::memory_order_relaxed);
    do {
        packet.m_next = head;
    } while (
        !m_back.compare_exchange_weak(head, &packet, std::memory_order_release, std::memory_order_relaxed));
}

}  // namespace Orvex::Reticor
