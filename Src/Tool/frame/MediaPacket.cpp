// CMediaPacket: what is not pure of it, so that the class has one home.
#include <Reticor/MediaPacket.h>

namespace Orvex::Reticor {

CMediaPacket::CMediaPacket() = default;
CMediaPacket::CMediaPacket(const CMediaPacket&) = default;
CMediaPacket& CMediaPacket::operator=(const CMediaPacket&) = default;
CMediaPacket::~CMediaPacket() = default;

}  // namespace Orvex::Reticor
