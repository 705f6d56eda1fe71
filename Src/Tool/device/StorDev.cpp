// What the storage devices share: from stat(2) to NFile_Info, and the way to the medium.
#include "Tool/device/StorDev.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <Infra/Log.h>

#include "Socket/address/SockError.h"

namespace Orvex::Reticor {

int sync_file(int fd) {
    // What cannot be synchronised, a pipe for instance, has nothing that could be lost.
    if (::fdatasync(fd) == 0 || errno == EINVAL || errno == EROFS) {
        return 0;
    }
    const int error = errno;
    INFRA_LOG_STATIC(2, "sync file failed! %s\n", GetSockErrorText(error).c_str());
    return -1;
}

void fill_file_info(const struct stat& found, const char* path, NFile_Info* info) {
    info->time_create = found.st_ctime;
    info->time_access = found.st_atime;
    info->time_write = found.st_mtime;
    info->size = found.st_size;
    info->attrib = 0;
    copy_file_name(info->name, path);
}

void copy_file_name(char (&out)[256], const char* name) {
    std::strncpy(out, name, sizeof(out) - 1);
    out[sizeof(out) - 1] = '\0';
}

}  // namespace Orvex::Reticor
