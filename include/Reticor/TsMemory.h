// CTsMemory: recycles blocks of memory, per worker thread without a lock and for all threads with one.
#pragma once

#include <Reticor/Export.h>

namespace Orvex::Reticor {

/// A recycler of memory blocks, used by its static operations alone.
///
/// Blocks come in 45 classes, from 8 to 229376 bytes; a request gets a block of the smallest class that holds
/// it (1501 to 4096 bytes all get 4096). A freed block waits in the list of its class, up to a limit per
/// class, and the next request of that class takes it without asking the general allocator. Larger requests
/// go to the general allocator and back.
///
/// Every worker of a pool owns one table of classes, which `TsMalloc` and `TsFree` use without a lock.
/// Threads that are not workers have none: there the two pass everything to the general allocator, and stay
/// correct. One more table is shared by all threads; `Malloc` and `Free` use it under a lock.
///
/// The four operations mix freely: a block may be freed on any thread and through either `TsFree` or `Free`,
/// and joins the table that it is freed to. Every block is aligned to 16 bytes. Null comes back when there is
/// no memory. A size of 0 counts as 1. Freeing null does nothing.
///
/// Thread safety: `TsMalloc`, `TsFree`, `Malloc` and `Free` from any thread at any time; none of them waits
/// for anything but the short list work of another `Malloc` or `Free`.
class RETICOR_API CTsMemory {
public:
    /// Objects of this class hold nothing.
    CTsMemory();
    /// Copies nothing.
    CTsMemory(const CTsMemory& other);
    /// Copies nothing.
    CTsMemory& operator=(const CTsMemory& other);

    /// Forgets the shared table and the slot number: the state before the first worker. For the start of the
    /// library, while no thread has a table.
    static void InitStaticVal();

    /// Gives the calling thread a table, and the process the shared one if there is none yet. A thread that
    /// has a table keeps it. Without memory the thread stays without a table, which every operation can live
    /// with.
    static void CreateMemPool();

    /// Gives the free blocks of the calling thread's table, and the table, to the general allocator. Blocks
    /// in use live on and are freed wherever they end. Does nothing on a thread without a table.
    static void DestroyThreadMemPool();

    /// Gives the shared table and its free blocks to the general allocator. Tables of threads stay theirs.
    static void DestroyMemPool();

    /// A block of at least `size` bytes from the calling thread's table.
    static void* TsMalloc(unsigned int size);

    /// Gives a block to the calling thread's table.
    static void TsFree(void* p);

    /// A block of at least `size` bytes from the shared table.
    static void* Malloc(unsigned int size);

    /// Gives a block to the shared table.
    static void Free(void* p);
};

}  // namespace Orvex::Reticor
