// CNStorDev_IF: what every storage device has.
#include <Reticor/StorDev.h>

namespace Orvex::Reticor {

CNStorDev_IF::CNStorDev_IF() = default;
CNStorDev_IF::CNStorDev_IF(const CNStorDev_IF&) {}
CNStorDev_IF& CNStorDev_IF::operator=(const CNStorDev_IF&) {
    return *this;
}
CNStorDev_IF::~CNStorDev_IF() = default;

bool CNStorDev_IF::NeedAIO() {
    return true;
}

int CNStorDev_IF::Finish(bool) {
    return 0;
}

}  // namespace Orvex::Reticor
