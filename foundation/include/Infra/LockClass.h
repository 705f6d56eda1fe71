// LockClass: what a lock is for, by which builds that watch the locks tell them apart.
//
// Such builds (the option RETICOR_HELD_LOCKS) keep a list of the locks that each thread holds. They
// are for the library's own tests and are not installed; in all others nothing is left of this but an
// argument that nobody looks at.
#pragma once

#include <cstdint>

#if defined(RETICOR_HELD_LOCKS)
#include <Infra/Seam.h>
/// The place of the caller, as a last parameter: alone, or after others.
#define INFRA_PLACE_PARAMETER ::Orvex::Infra::LockPlace place = ::Orvex::Infra::LockPlace::here()
#define INFRA_AND_PLACE_PARAMETER , INFRA_PLACE_PARAMETER
#define INFRA_PLACE place
#else
#define INFRA_PLACE_PARAMETER
#define INFRA_AND_PLACE_PARAMETER
#define INFRA_PLACE
#endif

namespace Orvex::Infra {

/// One number for all locks that do the same for objects of one class. The library's own are listed where
/// products do not see them. A lock that is made without one is a product's: nothing is promised about those.
enum class LockClass : uint16_t;

/// The class of a lock that was given none.
constexpr LockClass UNNAMED_LOCK{0};

}  // namespace Orvex::Infra
