// TFuncBox: the table of debug commands. R3Command: enters one when the library is loaded.
#pragma once

#include <atomic>
#include <cstdint>

#include <Infra/Mutex.h>
#include <Reticor/R3.h>

namespace Orvex::Reticor {

/// How a command is called: the numbers of the typed line in order, 0 for what was not typed. The result is
/// ignored.
using R3Function = int (*)(int, int, int, int, int, int, int, int, int, int);

struct TFuncEntry {
    R3Function func;   ///< The command.
    const char* name;  ///< The word to type. Not owned.
    const char* help;  ///< One line, or null. Not owned.
};

/// Guards the one box and what is in any box. Nothing else is taken while it is held.
extern Infra::CMutex g_r3_funcbox_mutex;

/// The commands, in the order in which they were registered. Nothing is ever removed, and an entry does not
/// change, so an entry that was found is good for as long as its box.
///
/// Ownership: counted. A box is made with one reference; `R3ServerExit` drops that one of the global box
/// while a client of the debug server may still be searching it, with a reference of its own.
///
/// Thread safety: any thread.
class TFuncBox {
public:
    static constexpr int CAPACITY = 1024;

    /// Adds a command. 0; -1 without a line if `func` or `name` is null; -1 with a line at level 2 if the box
    /// is full or knows the name.
    int Register(void* func, const char* name, const char* help);

    /// The command of exactly that name, or null.
    const TFuncEntry* Find(const char* name) const;

    int Count() const;

    /// The entry at `index`, which is from 0 to below CAPACITY; empty from Count() on.
    const TFuncEntry& At(int index) const { return m_entries[index]; }

    void AddRef();
    void Release();

private:
    int32_t m_count INFRA_GUARDED_BY(g_r3_funcbox_mutex) = 0;
    TFuncEntry m_entries[CAPACITY] = {};  ///< Filled from index 0 upward, under the mutex.
    int32_t m_references INFRA_GUARDED_BY(g_r3_funcbox_mutex) = 1;
};

/// The one box, with a reference of its own. Null until the first registration, and again after
/// `R3ServerExit`.
extern TFuncBox* g_r3_funcbox;

/// A reference on a box, or nothing.
class FuncBoxRef {
public:
    FuncBoxRef() = default;
    explicit FuncBoxRef(TFuncBox* box) : m_box(box) {
        if (m_box != nullptr) {
            m_box->AddRef();
        }
    }
    ~FuncBoxRef() {
        if (m_box != nullptr) {
            m_box->Release();
        }
    }
    FuncBoxRef(const FuncBoxRef&) = delete;
    FuncBoxRef& operator=(const FuncBoxRef&) = delete;

    /// Takes over the reference that the caller holds. Only while this object is empty.
    void adopt(TFuncBox* box) { m_box = box; }
    TFuncBox* get() const { return m_box; }

private:
    TFuncBox* m_box = nullptr;
};

/// The one box, made if there is none, with a reference for the caller. Null if there is no memory for it.
TFuncBox* acquire_func_box();

/// Drops the global reference. Somebody else's may keep the box.
void drop_func_box();

/// Registers a command from a static object:
/// `const R3Command g_command(&print_version, "reticorversion", HELP_RETICORVERSION);`
struct R3Command {
    R3Command(R3Function func, const char* name, const char* help) {
        R3Register(reinterpret_cast<void*>(func), name, help);
    }
};

/// The command that stores its first argument in a print flag:
/// `const R3Command g_command(&r3_store_flag<g_print>, "threadpool", HELP_THREADPOOL);`
template <std::atomic<int32_t>& Flag>
int r3_store_flag(int value, int, int, int, int, int, int, int, int, int) {
    Flag.store(value, std::memory_order_relaxed);
    return 0;
}

}  // namespace Orvex::Reticor
