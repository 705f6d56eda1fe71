// The help lines of the library's debug commands. They are Chinese, in the GBK encoding that the terminals of
// their readers use, and so stand here as bytes; the meaning of each is given above it.
#pragma once

namespace Orvex::Reticor {

/// "Set the print level of threads (threadpool 0: off, threadpool 1: print)"
inline constexpr char HELP_THREADPOOL[] =
    "\xB5\xF7\xD5\xFB"
    "Thread"
    "\xB4\xF2\xD3\xA1\xBC\xB6\xB1\xF0"
    "(threadpool 0-"
    "\xB9\xD8\xB1\xD5\xA3\xAC"
    "threadpool 1-"
    "\xB4\xF2\xD3\xA1"
    ")";

/// "Set the print level of mediastreamreceiver (mediastreamreceiver 0: off, mediastreamreceiver 1: print)"
inline constexpr char HELP_MEDIASTREAMRECEIVER[] =
    "\xB5\xF7\xD5\xFB"
    "mediastreamreceiver "
    "\xB4\xF2\xD3\xA1\xBC\xB6\xB1\xF0"
    "(mediastreamreceiver 0-"
    "\xB9\xD8\xB1\xD5\xA3\xAC"
    "mediastreamreceiver 1-"
    "\xB4\xF2\xD3\xA1"
    ")";

/// "Show the version of Reticor and the time of its build"
inline constexpr char HELP_RETICORVERSION[] =
    "\xCF\xD4\xCA\xBE"
    "Reticor"
    "\xB0\xE6\xB1\xBE\xBC\xB0\xB1\xE0\xD2\xEB\xCA\xB1\xBC\xE4";

/// "Set the print level of MediaBuffer (0: off, 1: print what is buffered)"
inline constexpr char HELP_MEDIABUFFERPRT[] =
    "\xB5\xF7\xD5\xFB"
    "MediaBuffer"
    "\xB4\xF2\xD3\xA1\xBC\xB6\xB1\xF0"
    "(0-"
    "\xB9\xD8\xB1\xD5\xA3\xAC"
    "1-"
    "\xB4\xF2\xD3\xA1\xBB\xBA\xB4\xE6\xC1\xBF"
    ")";

/// "Set the print level of streamsender (streamsender 0: off, streamsender 1: print)"
inline constexpr char HELP_STREAMSENDER[] =
    "\xB5\xF7\xD5\xFB"
    "streamsender "
    "\xB4\xF2\xD3\xA1\xBC\xB6\xB1\xF0"
    "(streamsender 0-"
    "\xB9\xD8\xB1\xD5\xA3\xAC"
    "streamsender 1-"
    "\xB4\xF2\xD3\xA1"
    ")";

}  // namespace Orvex::Reticor
