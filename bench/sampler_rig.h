#pragma once
// One sampler cabled to an audio output in an engine of its own, for the sampler benchmarks.

#include <cstdint>

#include "sound/sampler.h"
#include "support/engine_graph.h"

struct SamplerRig {
    SamplerRig(int32_t frames, double rate) : engine(EngineOptions{false, 1}) {
        registerSoundComponents();
        engine.setSampleRate(rate);
        engine.setBlockSize(frames);
        out = testgraph::add<CAudioOut>(engine);
        sampler = testgraph::add<CSampler>(engine);
        testgraph::connectAudio(*sampler, *out);
    }

    CQV engine;
    CAudioOut* out = nullptr;
    CSampler* sampler = nullptr;
};
