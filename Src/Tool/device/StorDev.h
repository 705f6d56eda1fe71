// What the storage devices share: from stat(2) to NFile_Info.
#pragma once

#include <Reticor/StorDev.h>

struct stat;

namespace Orvex::Reticor {

/// All fields of `info`, from what the system says of the file at `path`.
void fillFileInfo(const struct stat& found, const char* path, NFile_Info* info);

/// The first 255 bytes of `name`.
void copyFileName(char (&out)[256], const char* name);

}  // namespace Orvex::Reticor
