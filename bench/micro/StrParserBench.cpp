// The header walk of a request of 20 lines, by CStrParser and by a loop of memchr calls written by hand.
//
// Each pair does the same work on the same text: step over all lines, find the last header by its head, or
// split every header into name and value. "Received" does the last with a text that has just come in: the
// parser attaches it, the loop by hand copies it.
#include <Reticor/StrParser.h>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "../tests/support/text/StrParserTexts.h"

namespace {

using Orvex::Reticor::CStrParser;

const char* const REQUEST = Orvex::Reticor::ProtocolTexts::HTTP_GET;

/// What a walk finds: enough that nothing can be left out by the compiler.
struct Found {
    long headers = 0;
    long bytes = 0;
};

const char* find(const char* from, const char* end, char c) {
    return static_cast<const char*>(memchr(from, c, static_cast<size_t>(end - from)));
}

// Names and values of all headers.

Found split_by_memchr(const char* p, const char* end) {
    Found found;
    p = find(p, end, '\n') + 1;
    for (const char* line_end; p < end && (line_end = find(p, end, '\n')) != nullptr; p = line_end + 1) {
        const char* colon = find(p, line_end, ':');
        if (colon == nullptr) {
            break;
        }
        const char* value = colon + 1;
        while (value < line_end && (*value == ' ' || *value == '\t')) {
            ++value;
        }
        ++found.headers;
        found.bytes += (colon - p) + (line_end - value);
    }
    return found;
}

Found split_by_parser(CStrParser& p) {
    Found found;
    p.ConsumeUntilNextLine();
    for (int name; (name = p.ConsumeUntilinLine(':')) != -1;) {
        p.Expect(':');
        p.ConsumeWhitespaceInLine();
        int value = p.ConsumeUntilNextLine();
        ++found.headers;
        found.bytes += name + value - 1;
    }
    return found;
}

void BM_SplitHeaders_Memchr(benchmark::State& state) {
    const std::string text = REQUEST;
    for (auto _ : state) {
        Found found = split_by_memchr(text.data(), text.data() + text.size());
        benchmark::DoNotOptimize(found);
    }
}
BENCHMARK(BM_SplitHeaders_Memchr);

void BM_SplitHeaders_StrParser(benchmark::State& state) {
    CStrParser parser(REQUEST);
    for (auto _ : state) {
        parser.ResetAll();
        Found found = split_by_parser(parser);
        benchmark::DoNotOptimize(found);
    }
}
BENCHMARK(BM_SplitHeaders_StrParser);

void BM_SplitReceived_Memchr(benchmark::State& state) {
    const size_t len = strlen(REQUEST);
    for (auto _ : state) {
        char* copy = static_cast<char*>(malloc(len));
        memcpy(copy, REQUEST, len);
        Found found = split_by_memchr(copy, copy + len);
        benchmark::DoNotOptimize(found);
        free(copy);
    }
}
BENCHMARK(BM_SplitReceived_Memchr);

void BM_SplitReceived_StrParser(benchmark::State& state) {
    const size_t len = strlen(REQUEST);
    for (auto _ : state) {
        CStrParser parser(REQUEST, static_cast<unsigned>(len));
        Found found = split_by_parser(parser);
        benchmark::DoNotOptimize(found);
    }
}
BENCHMARK(BM_SplitReceived_StrParser);

// Over all lines.

void BM_WalkLines_Memchr(benchmark::State& state) {
    const std::string text = REQUEST;
    for (auto _ : state) {
        const char* const end = text.data() + text.size();
        long lines = 0;
        for (const char* p = text.data(); p < end; p = find(p, end, '\n') + 1) {
            ++lines;
        }
        benchmark::DoNotOptimize(lines);
    }
}
BENCHMARK(BM_WalkLines_Memchr);

void BM_WalkLines_StrParser(benchmark::State& state) {
    CStrParser parser(REQUEST);
    for (auto _ : state) {
        parser.ResetAll();
        long lines = 0;
        while (parser.GetThruEOL() > 0) {
            ++lines;
        }
        benchmark::DoNotOptimize(lines);
    }
}
BENCHMARK(BM_WalkLines_StrParser);

// The last header by its head.

void BM_FindHeader_Memchr(benchmark::State& state) {
    const std::string text = REQUEST;
    const char head[] = "Content-Length:";
    for (auto _ : state) {
        const char* const end = text.data() + text.size();
        const char* p = text.data();
        while (p != nullptr && strncmp(p, head, sizeof head - 1) != 0) {
            p = find(p, end, '\n');
            p = p != nullptr && end - p > static_cast<long>(sizeof head) ? p + 1 : nullptr;
        }
        benchmark::DoNotOptimize(p);
    }
}
BENCHMARK(BM_FindHeader_Memchr);

void BM_FindHeader_StrParser(benchmark::State& state) {
    CStrParser parser(REQUEST);
    for (auto _ : state) {
        parser.ResetAll();
        benchmark::DoNotOptimize(parser.GetLineWithHead("Content-Length:", nullptr, 0));
    }
}
BENCHMARK(BM_FindHeader_StrParser);

// Both ways find the same; otherwise the figures would say nothing.
const bool CHECKED = [] {
    Found by_hand = split_by_memchr(REQUEST, REQUEST + strlen(REQUEST));
    CStrParser parser(REQUEST);
    Found by_parser = split_by_parser(parser);
    if (by_hand.headers != 19 || by_hand.headers != by_parser.headers || by_hand.bytes != by_parser.bytes) {
        abort();
    }
    return true;
}();

}  // namespace
