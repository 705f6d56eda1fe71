// FunctionName: the name of a function as log lines give it.
#pragma once

#include <cstddef>

#include <Infra/Export.h>

namespace Orvex::Infra::Detail {

/// The fully qualified name of a function, taken from its __PRETTY_FUNCTION__: without result type,
/// arguments, template arguments and qualifiers. Inside a lambda it is the name of the function that contains
/// the lambda.
class INFRA_API FunctionName {
public:
    /// Takes the name out of `pretty`, cut to 255 bytes.
    explicit FunctionName(const char* pretty) noexcept;
    /// The name; good for as long as this object.
    const char* text() const noexcept { return m_text; }

private:
    static constexpr size_t TEXT_SIZE = 256;
    char m_text[TEXT_SIZE];
};

}  // namespace Orvex::Infra::Detail
