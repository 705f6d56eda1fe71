// The locks: CMutex and CReadWriteMutex with their guards. Either has a header of its own.
#pragma once

#include <Infra/CMutex.h>
#include <Infra/ReadWriteMutex.h>
