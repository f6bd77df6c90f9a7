#pragma once
// The built-in demo song: four instrument tracks, each playing one sampler, through the channel strips
// into one audio output. The pad runs through a reverb, and the tempo rises after eight bars. Every note
// comes from fixed patterns and a generator with a fixed seed, so two renders give the same bytes.

#include <cstdint>

#include "engine/engine.h"
#include "engine/io.h"
#include "seq/seq.h"

namespace demo {

class DemoSong {
public:
    explicit DemoSong(double sampleRate);
    DemoSong(const DemoSong&) = delete;
    DemoSong& operator=(const DemoSong&) = delete;

    // The playing length: the notes and one bar more for the release and the reverb tail.
    int32_t lengthTicks() const { return lengthTicks_; }

    CQV engine;

private:
    int32_t lengthTicks_ = 0;
};

}  // namespace demo
