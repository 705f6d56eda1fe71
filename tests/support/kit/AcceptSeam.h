// AcceptSeam: has accept4(2) of the whole test program fail, and counts its calls.
#pragma once

#include <initializer_list>

namespace Orvex::Testing {

/// While it lives the next calls that would have somebody to accept fail with these errors, in turn. One at a
/// time.
class AcceptSeam {
public:
    AcceptSeam(std::initializer_list<int> errors);
    ~AcceptSeam();
    AcceptSeam(const AcceptSeam&) = delete;
    AcceptSeam& operator=(const AcceptSeam&) = delete;

    /// Errors that have not been given yet.
    static int left();
};

}  // namespace Orvex::Testing
