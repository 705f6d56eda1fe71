// CNStorDev_IF: what every storage device has.
#include "Tool/device/StorDev.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <Infra/Log.h>

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

int syncFile(int fd) {
    // What cannot be synchronised, a pipe for instance, has nothing that could be lost.
    if (::fdatasync(fd) == 0 || errno == EINVAL || errno == EROFS) {
        return 0;
    }
    const int error = errno;
    INFRA_LOG_STATIC(2, "sync file failed! %s\n", std::strerror(error));
    return -1;
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
