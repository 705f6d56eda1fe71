// TFuncBox: the table of debug commands. R3Command: enters one when the library is loaded.
#pragma once

#include <atomic>
#include <cstdint>

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

/// The commands, in the order in which they were registered. Nothing is ever removed.
///
/// Thread safety: none. The box is filled by static objects while the library is loaded, on one thread, and
/// only read afterwards.
class TFuncBox {
public:
    static constexpr int CAPACITY = 1024;

    /// Adds a command. 0; -1 without a line if `func` or `name` is null; -1 with a line at level 2 if the box
    /// is full or knows the name.
    int Register(void* func, const char* name, const char* help);

    /// The command of exactly that name, or null.
    const TFuncEntry* Find(const char* name) const;

    int Count() const { return m_count; }

    /// The entry at `index`, which is from 0 to below Count().
    const TFuncEntry& At(int index) const { return m_entries[index]; }

private:
    int32_t m_count = 0;
    TFuncEntry m_entries[CAPACITY] = {};  ///< Filled from index 0 upward.
};

/// The one box. Null until the first registration, and again after `R3ServerExit`, which deletes it.
extern TFuncBox* g_r3_funcbox;

/// Registers a command from a static object:
/// `const R3Command s_command(&printVersion, "reticorversion", HELP_RETICORVERSION);`
struct R3Command {
    R3Command(R3Function func, const char* name, const char* help) {
        R3Register(reinterpret_cast<void*>(func), name, help);
    }
};

/// The command that stores its first argument in a print flag:
/// `const R3Command s_command(&r3StoreFlag<s_print>, "threadpool", HELP_THREADPOOL);`
template <std::atomic<int32_t>& Flag>
int r3StoreFlag(int value, int, int, int, int, int, int, int, int, int) {
    Flag.store(value, std::memory_order_relaxed);
    return 0;
}

}  // namespace Orvex::Reticor
