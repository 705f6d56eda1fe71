// MemoryFault: lets one allocation of the library fail, or all from one on, on the threads that a test names.
// QuietLog: takes the log lines meanwhile, without an allocation of its own.
//
// The test program has its own operator new, in all forms, and stands before the core's general allocator;
// what the C library takes for itself never fails.
#pragma once

#include <cstddef>
#include <string>

namespace Orvex::Testing {

// Whose allocations are counted and fail.
enum class Whose { OWN, OTHERS };

// Whether only one fails, as when memory is short for a moment, or all after it too.
enum class Extent { ONE, ALL };

// One at a time. OWN is the thread that makes it.
class MemoryFault {
public:
    MemoryFault(Whose whose, Extent extent, size_t successes_before = 0);
    ~MemoryFault();
    MemoryFault(const MemoryFault&) = delete;
    MemoryFault& operator=(const MemoryFault&) = delete;

    // From here on memory is there again.
    void end();

    // Whether an allocation has failed.
    static bool hit();

    // Allocations of the calling thread since it began.
    static size_t own();
};

class QuietLog {
public:
    QuietLog();
    ~QuietLog();
    QuietLog(const QuietLog&) = delete;
    QuietLog& operator=(const QuietLog&) = delete;

    // Lines of level 1 and 2, and those among them that contain the text.
    static size_t count();
    static size_t count(const char* text);

    // The first of them, for messages.
    static std::string all();
};

}  // namespace Orvex::Testing
