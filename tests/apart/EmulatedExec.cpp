// Where an emulator runs the tests, the kernel below cannot start a program of their kind. Death tests start
// their own program again by execv(3): this one comes before the C library's, and goes through the emulator.

#include <unistd.h>

#include <cerrno>
#include <cstddef>

namespace {

constexpr const char* EMULATOR[] = {RETICOR_TEST_EMULATOR};
constexpr size_t EMULATOR_WORDS = sizeof(EMULATOR) / sizeof(EMULATOR[0]);
constexpr size_t WORDS = 64;

}  // namespace

// Allocates nothing: its caller is a child with a small stack, and another thread may have held the lock of
// the allocator.
extern "C" int execv(const char* path, char* const arguments[]) noexcept {
    const char* words[WORDS] = {};
    size_t count = 0;
    for (const char* const word : EMULATOR) {
        words[count++] = word;
    }
    words[count++] = path;
    for (size_t i = 1; arguments[0] != nullptr && arguments[i] != nullptr; ++i) {
        if (count == WORDS - 1) {
            errno = E2BIG;
            return -1;
        }
        words[count++] = arguments[i];
    }
    static_assert(EMULATOR_WORDS + 2 < WORDS, "the program's own words have room");
    return ::execvpe(words[0], const_cast<char* const*>(words), environ);
}
