// DumpFormat: what the flight recorder writes, for whoever reads it: in the byte order of the machine.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Orvex::Reticor {

/// A dump is a DumpHeader and parts, each a DumpPart and so many bytes as that says; the last one is an END.
/// Whatever is missing at the end of a file was not written any more, and what is there is good.
constexpr char DUMP_MAGIC[8] = {'R', 'T', 'C', 'R', 'T', 'R', 'C', '\n'};
constexpr uint32_t DUMP_VERSION = 1;

/// The clock of events is told by two moments: `begin_ticks` was `begin_ns`, `dump_ticks` was `dump_ns`.
struct DumpHeader {
    char magic[8];
    uint32_t version;
    uint32_t header_size;  ///< Bytes of this; the parts come after so many.
    uint32_t pid;
    uint32_t places;  ///< Events of a full ring.
    uint64_t begin_ticks;
    uint64_t begin_ns;  ///< Monotonic.
    uint64_t dump_ticks;
    uint64_t dump_ns;
    uint64_t wall_ns;  ///< Since 1970, when it was dumped.
};
static_assert(sizeof(DumpHeader) == 64, "written as it is");

enum class DumpPartKind : uint32_t { CLASS = 1, THREAD = 2, END = 3 };

struct DumpPart {
    DumpPartKind kind;
    uint32_t size;  ///< Bytes that follow.
};

/// A CLASS part is this and the class's name as the compiler writes it.
struct DumpClass {
    uint32_t row;
};

/// A THREAD part is this, `count` events as they lie in the ring, and a DumpThreadEnd. Event number n lies in
/// the place n modulo `places`. While it was read the thread may have written on: good are the events from
/// `first` to `written`, without those that were overwritten until the end.
struct DumpThread {
    uint64_t written;  ///< Events that were ever written into the ring.
    uint64_t first;    ///< The first one of this thread.
    uint32_t thread_id;
    int32_t pool;   ///< Of a worker; -1 for other threads.
    char name[16];  ///< Ends with a 0 if it is shorter.
    uint32_t count;
    uint32_t live;  ///< 0: the thread has ended.
};
static_assert(sizeof(DumpThread) == 48, "written as it is");

/// Another thread may have got the ring meanwhile; then nothing of it is good.
struct DumpThreadEnd {
    uint64_t written;
    uint32_t thread_id;
    uint32_t reserved;
};
static_assert(sizeof(DumpThreadEnd) == 16, "written as it is");

/// One event: the lower 56 bits of the time, what it is, and of what.
struct TraceEvent {
    uint64_t ticks_what;  ///< Ticks in the upper 56 bits, a TraceWhat below.
    uint64_t object;      ///< As the TraceWhat says.
};
static_assert(sizeof(TraceEvent) == 16, "the price of an event in memory");
constexpr int TRACE_TICKS_SHIFT = 8;

/// Handlers are told by the lower 56 bits of their id, whose other bits are all set; where there is less room
/// by the lower 40 bits. Records are told by their address: each is in one queue at a time.
enum TraceWhat : uint8_t {
    TRACE_ENTER = 0x00,  ///< And a CallKind. The handler; its class's row in the highest byte.
    TRACE_LEAVE = 0x10,  ///< And a CallKind. The handler.
    TRACE_PUSH = 0x20,   ///< And a TraceRecord. The record in 48 bits; the number or handle of what it
                         ///< is about in the others, as far as it goes in.
    TRACE_POP = 0x28,    ///< As above.
    TRACE_READY = 0x30,  ///< A socket: its handle in 32 bits, then its bits of readiness.
    TRACE_DUE = 0x31,    ///< A timer: its id in 40 bits, then by how many microseconds it was late.
    TRACE_FRAME_PUT =
        0x32,  ///< The frame's number in 48 bits, then its channel and whether it is a key frame.
    TRACE_FRAME_SENT = 0x33,  ///< The sender in 40 bits, then the frame's number in 24 bits; 0 for unknown.
    TRACE_FRAME_DROPPED = 0x34,  ///< The sender in 40 bits, 0 if none had it; then a TraceDrop, then the
                                 ///< channel.
    TRACE_BLOCKED = 0x35,        ///< A sender whose socket is full.
    TRACE_FREE = 0x36,           ///< That it is full no more.
    TRACE_TASK_BEGIN = 0x37,     ///< A task of a file worker: the file in 48 bits, then the task's type.
    TRACE_TASK_END = 0x38        ///< As above.
};

enum class TraceRecord : uint8_t { SOCKET, MESSAGE, SERIAL, TIMER, COUNT };

/// Why a sender did not get a frame.
enum class TraceDrop : uint8_t {
    TOO_OLD,     ///< It has expired.
    STEPPED,     ///< The sender was late, and went to a younger key frame.
    NO_KEY,      ///< The channel waits for a key frame.
    NOT_CHOSEN,  ///< A channel that the sender has not chosen.
    FILTERED,    ///< The product's filter kept it back.
    DISPOSABLE,  ///< Left out by a late sender, since no other frame needs it.
    GONE,        ///< It was not there any more when the sender came to it.
    COUNT
};

constexpr uint64_t TRACE_HANDLER_MASK = (uint64_t{1} << 56) - 1;
constexpr uint64_t TRACE_SHORT_MASK = (uint64_t{1} << 40) - 1;
constexpr uint64_t TRACE_ADDRESS_MASK = (uint64_t{1} << 48) - 1;
constexpr int TRACE_ROW_SHIFT = 56;
constexpr int TRACE_SHORT_SHIFT = 40;
constexpr int TRACE_ADDRESS_SHIFT = 48;

}  // namespace Orvex::Reticor
