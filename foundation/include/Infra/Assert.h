// assertionFailed: the report of an assertion that was tested elsewhere, by the component smart pointer.
//
// Everything else asserts with the language's own assert(), which is active in every build type.
#pragma once

#include <Infra/Export.h>

namespace Orvex::Infra::Detail {

/// Writes "file:line: function: Assertion `expression' failed." to standard error, in the form that assert(3)
/// has, and ends the process by abort(3). A null text shows as "(null)". Any thread may call it; it allocates
/// nothing.
[[noreturn]] INFRA_API void assertionFailed(const char* expression, const char* function, const char* file,
                                            long line) noexcept;

}  // namespace Orvex::Infra::Detail
