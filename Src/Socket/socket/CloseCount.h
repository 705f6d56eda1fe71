// Counts the closes of each descriptor number, so that the multiplexer notices a number that was reused.
//
// The kernel forgets a watched descriptor in silence when it is closed, and soon gives its number to the next
// socket. Whoever caches what the kernel watches by number takes the count when it tells the kernel, and
// trusts the cache only while the count stands still.
//
// Numbers share counters modulo the table's size. A count that moved for a neighbour's close costs one
// needless system call, never a missed one.
#pragma once

#include <cstdint>

namespace Orvex::Reticor {

/// How many times a number that shares this counter was closed by the library. Any thread; a relaxed read:
/// the kernel hands a number out again only after the close that raised its count.
uint32_t close_count(int fd);

/// close(2), after the count was raised, so that no later owner of the number can meet the old count. Every
/// close in the library goes through here. Any thread.
int close_counted(int fd);

}  // namespace Orvex::Reticor
