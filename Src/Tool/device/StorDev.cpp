// CNStorDev_IF: what every storage device has.
#include "Tool/device/StorDev.h"

#include <sys/stat.h>

#include <cstring>

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

void fillFileInfo(const struct stat& found, const char* path, NFile_Info* info) {
    info->time_create = found.st_ctime;
    info->time_access = found.st_atime;
    info->time_write = found.st_mtime;
    info->size = found.st_size;
    info->attrib = 0;
    copyFileName(info->name, path);
}

void copyFileName(char (&out)[256], const char* name) {
    std::strncpy(out, name, sizeof(out) - 1);
    out[sizeof(out) - 1] = '\0';
}

}  // namespace Orvex::Reticor
