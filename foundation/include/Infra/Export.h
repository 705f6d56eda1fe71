// INFRA_API marks what the shared library exports; everything else is hidden. INFRA_HIDDEN keeps private
// members of an exported class inside the library.
// INFRA_CONSTINIT in front of a static object makes the compiler refuse a start-up initialiser.
#pragma once

static_assert(sizeof(long) == 8 && sizeof(void*) == 8,
              "Infra and Reticor are for 64-bit systems: ids, times and what a message carries are long");

#if defined(__GNUC__)
#define INFRA_API __attribute__((visibility("default")))
#define INFRA_HIDDEN __attribute__((visibility("hidden")))
#else
#define INFRA_API
#define INFRA_HIDDEN
#endif

#if defined(__clang__)
#define INFRA_CONSTINIT [[clang::require_constant_initialization]]
#elif defined(__GNUC__) && __GNUC__ >= 10
#define INFRA_CONSTINIT __constinit
#else
#define INFRA_CONSTINIT
#endif
