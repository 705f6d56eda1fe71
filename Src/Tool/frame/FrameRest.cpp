// FrameRest: a private copy of what is left of a frame that goes away under a sender.
#include "Tool/frame/FrameRest.h"

#include <cstring>
#include <memory>
#include <new>
#include <utility>

namespace Orvex::Reticor {

namespace {

/// A copy of the bytes of one packet, for a sender whose frame was let go while it was half-written.
class CRestPacket : public CMediaPacket {
public:
    /// Null if there is no memory.
    static CRestPacket* make(const iovec& bytes) {
        std::unique_ptr<char[]> copy(new (std::nothrow) char[bytes.iov_len]);
        if (copy == nullptr) {
            return nullptr;
        }
        if (bytes.iov_len != 0) {
            std::memcpy(copy.get(), bytes.iov_base, bytes.iov_len);
        }
        return new (std::nothrow) CRestPacket(std::move(copy));
    }
    int Release() override {
        delete this;
        return 0;
    }
    char* GetBuffer() override { return m_bytes.get(); }

private:
    explicit CRestPacket(std::unique_ptr<char[]> bytes) : m_bytes(std::move(bytes)) {}

    const std::unique_ptr<char[]> m_bytes;
};

/// Adds a copy of a packet's bytes. False if there is no memory.
bool put_copy(CFrame& rest, const iovec& bytes, int mark, int level) {
    CRestPacket* const copy = CRestPacket::make(bytes);
    if (copy != nullptr && rest.Put(copy, static_cast<int>(bytes.iov_len), mark, level) != 0) {
        copy->Release();
        return false;
    }
    return copy != nullptr;
}

}  // namespace

CFrame* FrameRest::copy(const CFrame& frame, uint32_t from, uint32_t end, bool between) {
    std::unique_ptr<CFrame> rest(new (std::nothrow) CFrame);
    if (rest == nullptr || (between && !put_copy(*rest, iovec{nullptr, 0}, MEDIA_MARK_MORE, frame.m_level))) {
        return nullptr;
    }
    for (uint32_t index = from; index < end; ++index) {
        if (!put_copy(*rest, frame.m_iovec[index], frame.m_mark, frame.m_level)) {
            return nullptr;
        }
    }
    return rest.release();
}

}  // namespace Orvex::Reticor
