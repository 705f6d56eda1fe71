// CLevel2Buffer_IF: what is not pure of it, so that the class has one home.
#include <Reticor/MediaPacket.h>

namespace Orvex::Reticor {

CLevel2Buffer_IF::CLevel2Buffer_IF() = default;
CLevel2Buffer_IF::CLevel2Buffer_IF(const CLevel2Buffer_IF&) = default;
CLevel2Buffer_IF& CLevel2Buffer_IF::operator=(const CLevel2Buffer_IF&) = default;
CLevel2Buffer_IF::~CLevel2Buffer_IF() = default;

}  // namespace Orvex::Reticor
