// ErrorText, by the GNU form of strerror_r(3).
#include "ErrorText.h"

#include <string.h>

namespace Orvex::Infra::Detail {

ErrorText::ErrorText(int error) noexcept
    : m_buffer{}, m_text(::strerror_r(error, m_buffer, sizeof(m_buffer))) {}

}  // namespace Orvex::Infra::Detail
