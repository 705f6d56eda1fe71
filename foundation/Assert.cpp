// The report of a failed assertion, in the words of assert(3).
#include <Infra/Assert.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace Orvex::Infra::Detail {

namespace {

const char* shown(const char* text) {
    return text != nullptr ? text : "(null)";
}

}  // namespace

void assertionFailed(const char* expression, const char* function, const char* file, long line) noexcept {
    char text[1024];
    std::snprintf(text, sizeof(text), "%s:%ld: %s: Assertion `%s' failed.\n", shown(file), line,
                  shown(function), shown(expression));
    std::fputs(text, stderr);
    std::fflush(stderr);
    std::abort();
}

}  // namespace Orvex::Infra::Detail
