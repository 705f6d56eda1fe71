// What the storage devices share: from stat(2) to NFile_Info, and the way to the medium.
#pragma once

#include <Reticor/StorDev.h>

struct stat;

namespace Orvex::Reticor {

/// All fields of `info`, from what the system says of the file at `path`.
void fill_file_info(const struct stat& found, const char* path, NFile_Info* info);

/// fdatasync(2). Result: 0, also for what has no medium; -1 with a line at level 2.
int sync_file(int fd);

/// The first 255 bytes of `name`.
void copy_file_name(char (&out)[256], const char* name);

}  // namespace Orvex::Reticor
