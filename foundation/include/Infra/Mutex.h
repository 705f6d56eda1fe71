// The locks: CMutex with CGuard, and CReadWriteMutex with CReadGuard and CWriteGuard. Either has a header of its own.
#pragma once

#include <Infra/CMutex.h>
#include <Infra/ReadWriteMutex.h>
