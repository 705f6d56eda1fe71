// RETICOR_API marks what the shared library exports; everything else is hidden. RETICOR_HIDDEN keeps private
// members of an exported class inside the library.
#pragma once

static_assert(sizeof(long) == 8 && sizeof(void*) == 8,
              "Reticor is for 64-bit systems: ids, times and what a message carries are long");

#if defined(__GNUC__)
#define RETICOR_API __attribute__((visibility("default")))
#define RETICOR_HIDDEN __attribute__((visibility("hidden")))
#else
#define RETICOR_API
#define RETICOR_HIDDEN
#endif
