// The threads: CThread, to derive from, and CThreadLite. Either has a header of its own.
#pragma once

#include <Infra/CThread.h>
#include <Infra/ThreadLite.h>
