// RecorderBench: what an event costs that is recorded, and a point at which nobody looks.
#include <benchmark/benchmark.h>

#include <cstdint>

#include <Reticor/Recorder.h>

#include "Core/count/Points.h"

namespace {

using namespace Orvex::Reticor;

struct Sender {
    int64_t id = -6553600;
    int64_t GetID() const { return id; }
};

void point(benchmark::State& state, bool on) {
    on ? CRecorder::Start() : CRecorder::Stop();
    Sender sender;
    for (auto _ : state) {
        benchmark::DoNotOptimize(sender);
        Points::Blocked(&sender);
    }
    CRecorder::Stop();
}

void PointOff(benchmark::State& state) {
    point(state, false);
}

void PointRecorded(benchmark::State& state) {
    point(state, true);
}

BENCHMARK(PointOff);
BENCHMARK(PointRecorded);
BENCHMARK(PointRecorded)->Threads(2);

}  // namespace
