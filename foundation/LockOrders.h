// LockOrders: which locks were wanted while which were held, by class, kept over many processes in one file.
#pragma once

#if defined(RETICOR_HELD_LOCKS)

#include <Infra/HeldLocks.h>
#include <Infra/LockClass.h>

namespace Orvex::Infra {

/// The file is named by the environment's RETICOR_LOCK_ORDERS, and is mapped by every process of a test run,
/// so that to note a pair needs neither a call of the system nor a lock. script/check_locks reads it: SIDE
/// times SIDE places of ENTRY_SIZE bytes, the first of which is 0 in those that nobody has used; then a text
/// up to a zero byte.
class LockOrders {
public:
    /// More than there are classes.
    static constexpr size_t SIDE = 128;
    static constexpr size_t ENTRY_SIZE = 256;
    static constexpr const char* VARIABLE = "RETICOR_LOCK_ORDERS";

    /// Locks without a class make no order, and neither do two of one class: HeldLocks judges those.
    static void note(const HeldLocks::Held& held, LockClass wanted, LockPlace place) noexcept;
};

}  // namespace Orvex::Infra

#endif
