// RETICOR_API marks what the shared library exports; everything else is hidden.
#pragma once

#if defined(__GNUC__)
#define RETICOR_API __attribute__((visibility("default")))
#else
#define RETICOR_API
#endif
