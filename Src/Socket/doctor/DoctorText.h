// DoctorText: a look at multicast as a text for people.
#pragma once

#include <string>

#include "Socket/doctor/DoctorFacts.h"

namespace Orvex::Reticor {

/// Without memory std::bad_alloc comes out.
std::string text_of(const DoctorFacts& facts);

/// One word for a fault.
const char* name_of_fault(MulticastFault fault);

}  // namespace Orvex::Reticor
