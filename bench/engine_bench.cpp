// Cost of one engine cycle for graphs of several sizes, on the single and the parallel path, beside the
// cost of a plain copy of the same audio buffers measured in the same run. The components do almost
// nothing, so what is measured is the engine: pulls, marks, summing, work items and hand-offs.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <vector>

#include "support/engine_graph.h"

namespace {

constexpr int32_t frames = 1024;

class LightSource : public CComp {
public:
    LightSource(CQV* engine, int32_t seed) : CComp(engine), value(0.001f * static_cast<float>(seed + 1)) {}
    void createPorts() override { addOutputChannel(); }
    void processBlock(int32_t n) override {
        COutputChannel* out = firstOutputChannel();
        std::fill_n(out->left(), n, value);
        std::fill_n(out->right(), n, -value);
    }
    float value;
};

class LightStage : public CComp {
public:
    LightStage(CQV* engine, float gain) : CComp(engine), gain(gain) {}
    void createPorts() override {
        addInputChannel();
        addOutputChannel();
    }
    bool takesAudio() const override { return true; }
    void processBlock(int32_t n) override {
        const CInputChannel* in = firstInputChannel();
        COutputChannel* out = firstOutputChannel();
        for (int32_t i = 0; i < n; ++i) out->left()[i] = in->left()[i] * gain;
        for (int32_t i = 0; i < n; ++i) out->right()[i] = in->right()[i] * gain;
    }
    float gain;
};

// Seconds per round of copying one stereo block per component, the least any engine must move.
double copySecondsPerCycle(int32_t components, int64_t rounds) {
    std::vector<float> from(static_cast<size_t>(components) * frames * 2, 0.5f);
    std::vector<float> to(from.size());
    auto start = std::chrono::steady_clock::now();
    for (int64_t r = 0; r < rounds; ++r) {
        std::copy(from.begin(), from.end(), to.begin());
        benchmark::DoNotOptimize(to.data());
        benchmark::ClobberMemory();
    }
    std::chrono::duration<double> spent = std::chrono::steady_clock::now() - start;
    return spent.count() / static_cast<double>(rounds);
}

void cycle(benchmark::State& state, bool parallel) {
    const auto components = static_cast<int32_t>(state.range(0));
    CQV engine(EngineOptions{false, parallel ? 0 : 1});
    if (parallel && engine.workers->threadCount == 0) {
        state.SkipWithError("one processor: no parallel path");
        return;
    }
    engine.setBlockSize(frames);
    testgraph::buildRandomGraph<LightSource, LightStage>(engine, components, 11);
    for (int i = 0; i < 20; ++i) engine.runCycle(frames);

    auto start = std::chrono::steady_clock::now();
    for (auto _ : state) engine.runCycle(frames);
    std::chrono::duration<double> spent = std::chrono::steady_clock::now() - start;

    const double perCycle = spent.count() / static_cast<double>(state.iterations());
    const double copy = copySecondsPerCycle(components, std::max<int64_t>(state.iterations(), 100));
    state.counters["cycle_us"] = perCycle * 1e6;
    state.counters["copy_us"] = copy * 1e6;
    state.counters["ratio_to_copy"] = perCycle / copy;
    state.counters["workers"] = engine.workers->threadCount;
    state.SetItemsProcessed(state.iterations() * frames);
}

void singlePath(benchmark::State& state) { cycle(state, false); }
void parallelPath(benchmark::State& state) { cycle(state, true); }

}  // namespace

BENCHMARK(singlePath)->Arg(1)->Arg(16)->Arg(64)->Arg(256)->Unit(benchmark::kMicrosecond);
BENCHMARK(parallelPath)->Arg(1)->Arg(16)->Arg(64)->Arg(256)->Unit(benchmark::kMicrosecond)->UseRealTime();

BENCHMARK_MAIN();
