// ClassRows: the names of handler classes, and the row in which each is counted.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>

namespace Orvex::Reticor {

/// Row 0 is of handlers that were not called yet, the last row of classes for which there was no other one.
/// A class keeps its row as long as the process lives; classes of equal name share one.
///
/// Thread safety: any thread.
class ClassRows {
public:
    static constexpr size_t COUNT = 256;
    static constexpr uint32_t NOT_CALLED = 0;
    static constexpr uint32_t OTHERS = COUNT - 1;

    /// The row of the class with that virtual table; NOT_CALLED if it has none yet. Takes no lock.
    static uint32_t Find(const void* vtable);

    /// Gives the class with that virtual table the row of its name, as the compiler writes it. The name is
    /// copied, and no memory is taken: the caller is on its way to a handler, or closes one.
    static uint32_t Enter(const void* vtable, const char* name);

    /// The name as people read it, for those who list classes. Good for the life of the process; empty for a
    /// row that nobody has. The first call for a row takes memory, and without any the compiler's name is
    /// given.
    static const char* Name(uint32_t row);

    /// The compiler's name, null for a row that nobody has. Also in a signal handler.
    static const char* RawName(uint32_t row) { return sm_names[row].load(std::memory_order_acquire); }

private:
    static constexpr size_t PLACES = 4 * COUNT;
    static constexpr size_t ROOM = 128 * COUNT;  ///< For names: 128 bytes each on the average.

    /// A class by its virtual table. The row is written before the table, and neither changes after that.
    struct Place {
        std::atomic<const void*> vtable{nullptr};
        std::atomic<uint32_t> row{NOT_CALLED};
    };

    static size_t first_place(const void* vtable) {
        return static_cast<size_t>((reinterpret_cast<uintptr_t>(vtable) >> 3) * 0x9E3779B97F4A7C15u >> 32) %
               PLACES;
    }
    static uint32_t row_of(const char* name) INFRA_REQUIRES(sm_mutex);

    static Infra::CMutex sm_mutex;
    static Place sm_places[PLACES];
    static size_t sm_taken INFRA_GUARDED_BY(sm_mutex);   ///< Of the places.
    static uint32_t sm_rows INFRA_GUARDED_BY(sm_mutex);  ///< That have a name, row 0 included.
    static std::atomic<const char*> sm_names[COUNT];     ///< In sm_room.
    static std::atomic<const char*> sm_readable[COUNT];  ///< Once somebody has asked.
    static char sm_room[ROOM] INFRA_GUARDED_BY(sm_mutex);
    static size_t sm_used INFRA_GUARDED_BY(sm_mutex);  ///< Of the room.
};

}  // namespace Orvex::Reticor
