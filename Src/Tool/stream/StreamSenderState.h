// StreamSenderState: what a CStreamSender knows, and its chain of blocks.
#pragma once

#include <sys/uio.h>

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <utility>

#include <Infra/Atomic.h>
#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>
#include <Reticor/Sock.h>

#include "Core/count/ObjectRoll.h"
#include "Core/count/Tally.h"

namespace Orvex::Reticor {

class CNetHandler;
class CStreamSender;

constexpr uint32_t SEND_BUF_SHIFT = 15;
constexpr uint32_t SEND_BUF_BYTES = 1u << SEND_BUF_SHIFT;

/// One block of the chain.
struct SSendBuf {
    char m_data[SEND_BUF_BYTES];
    char* m_read;      ///< First byte not yet sent.
    char* m_write;     ///< First free byte.
    char* m_end;       ///< One past the payload.
    SSendBuf* m_next;  ///< Younger block.
    SSendBuf* m_prev;  ///< Older block.

    uint32_t size() const { return static_cast<uint32_t>(m_write - m_read); }
    uint32_t room() const { return static_cast<uint32_t>(m_end - m_write); }
    void reset() { m_read = m_write = m_data; }
};

/// What came of bytes that were put.
enum class PutEnd {
    TAKEN,        ///< The socket took them, or they wait after earlier ones.
    BEGINS_WAIT,  ///< Some wait, and nothing waited before: the socket is to be watched.
    REFUSED,      ///< Not a byte was taken: there is no room.
    NO_MEMORY,    ///< The same for want of memory.
    FAILED,       ///< The socket failed.
    LOST,         ///< A part went out, and there was no memory for the rest.
};

/// Thread safety: the caller holds m_mutex for all but buffer_size() and socket(). Nobody but its own
/// operations writes the members.
///
/// Invariants: the blocks between m_head and m_tail are full and untouched; only the head can be partly read,
/// only the tail partly written. m_data_len is what all of them hold together. Blocks after the tail are
/// spare and empty. The links back are right from the tail to the head. No block is freed before the sender
/// is.
struct StreamSenderState {
    StreamSenderState();
    ~StreamSenderState();
    StreamSenderState(const StreamSenderState&) = delete;
    StreamSenderState& operator=(const StreamSenderState&) = delete;

    /// The capacity in bytes. Takes no lock. 64 bits, since the capacity in blocks has 32.
    uint64_t buffer_size() const { return uint64_t{Infra::relaxedLoad(m_buf_num)} << SEND_BUF_SHIFT; }

    /// The owner and the socket from now on; either may be null.
    void attach(CNetHandler* owner, CSock* stream) INFRA_REQUIRES(m_mutex);

    /// Writes or keeps all of the bytes, or none, in the order in which they are put. There must be a socket.
    PutEnd put(const char* buf, uint32_t len) INFRA_REQUIRES(m_mutex);

    /// Writes as much of what waits as the socket takes, in one write, and tells waiters. False if the socket
    /// failed. There must be a socket.
    bool drain(CStreamSender& sender) INFRA_REQUIRES(m_mutex);

    /// Appends `buf` without its first `already_sent` bytes. False, and nothing was appended, if there is no
    /// memory.
    bool put_buffer(const char* buf, uint32_t len, uint32_t already_sent) INFRA_REQUIRES(m_mutex);

    /// Whether there was memory for it.
    bool is_made() const INFRA_NO_THREAD_SAFETY_ANALYSIS { return m_iovec != nullptr; }  // of the creator

    /// Makes m_iovec name all that waits, and returns the number of its entries.
    uint32_t gather() INFRA_REQUIRES(m_mutex);

    /// Drops `len` bytes that were sent from the front, and returns how many there were.
    uint32_t del_buffer_header(uint32_t len) INFRA_REQUIRES(m_mutex);

    /// Raises the capacity. False if there is no memory for the longer list.
    bool grow(uint32_t blocks) INFRA_REQUIRES(m_mutex);

    /// Notes a wish to be told of room or of the end. False if there is no memory for it.
    bool wait_room(long id, int size) INFRA_REQUIRES(m_mutex);
    bool wait_end(long id) INFRA_REQUIRES(m_mutex);
    void wait_failure(long id) INFRA_REQUIRES(m_mutex) { m_exception_id = id; }

    /// Tells every waiter whose wish is fulfilled, as a message from `sender`.
    void check_buffer_free(CStreamSender& sender) INFRA_REQUIRES(m_mutex);

    /// A message to the handler that waits for failures.
    void tell_failure(CStreamSender& sender) INFRA_REQUIRES(m_mutex);

    /// The socket and its handle, for a trace line. Takes m_mutex itself.
    std::pair<CSock*, int> socket() const;

    void clear() INFRA_REQUIRES(m_mutex);
    void free_all() INFRA_REQUIRES(m_mutex);

    /// Capacity in blocks. Written under m_mutex, read without it too, as are the next ones.
    uint32_t m_buf_num = 8;
    /// Bytes waiting in the chain.
    uint32_t m_data_len = 0;
    Tally m_sent;     ///< Bytes that the socket took.
    Tally m_refused;  ///< Calls of Put for which there was no room.
    mutable Infra::CMutex m_mutex{Infra::LockClass::STREAM_SENDER};
    /// Oldest block with data.
    SSendBuf* m_head INFRA_GUARDED_BY(m_mutex) = nullptr;
    /// Block being filled. Spare blocks may hang after it.
    SSendBuf* m_tail INFRA_GUARDED_BY(m_mutex) = nullptr;
    /// m_buf_num + 1 entries: data that begins and ends inside a block touches one block more.
    std::unique_ptr<iovec[]> m_iovec INFRA_GUARDED_BY(m_mutex);
    /// Borrowed.
    CSock* m_stream INFRA_GUARDED_BY(m_mutex) = nullptr;
    /// GetType() of m_stream, kept at Attach.
    uint32_t m_stream_type INFRA_GUARDED_BY(m_mutex) = SOCK_TYPE_UNKNOWN;
    /// The handler on which the socket is registered. Not touched: it may be gone, so it is reached by its
    /// id.
    CNetHandler* m_owner INFRA_GUARDED_BY(m_mutex) = nullptr;
    long m_owner_id INFRA_GUARDED_BY(m_mutex) = 0;
    /// Per waiter id, the free bytes it waits for; -1 once told.
    std::map<long, int> m_wait_size INFRA_GUARDED_BY(m_mutex);
    /// Ids that wait for the chain to run empty.
    std::list<long> m_wait_finish INFRA_GUARDED_BY(m_mutex);
    /// Handler told of a socket failure; 0 means nobody.
    long m_exception_id INFRA_GUARDED_BY(m_mutex) = 0;

    /// In snapshots. The last member.
    RollEntry m_roll{KIND, &figures, this};

private:
    static const ObjectKind KIND;

    static ObjectValues figures(const void* object);
    void set_data_len(uint32_t len) INFRA_REQUIRES(m_mutex) { Infra::relaxedStore(m_data_len, len); }

    /// One write to the socket, by its type; results as CSockStream::Send and WriteV.
    int send(const char* buf, uint32_t len) INFRA_REQUIRES(m_mutex);
    int write_v(uint32_t count) INFRA_REQUIRES(m_mutex);
    static SSendBuf* new_buffer();
    bool reserve(uint32_t len) INFRA_REQUIRES(m_mutex);
    void recycle_head() INFRA_REQUIRES(m_mutex);
};

}  // namespace Orvex::Reticor
