// Diagnosis: what is wrong in what a look has seen, a sentence for each.
#pragma once

#include "Socket/doctor/DoctorFacts.h"

namespace Orvex::Reticor {

/// Without memory std::bad_alloc comes out.
class Diagnosis {
public:
    /// Fills `facts.problems` from all the rest.
    static void judge(DoctorFacts& facts);
    /// Why a join was refused: of a socket that has joined `memberships` IPv4 groups.
    static std::string explain_join(int handle, const GroupAddress& group, int error, uint32_t memberships,
                                    uint32_t groups_per_socket);
};

}  // namespace Orvex::Reticor
