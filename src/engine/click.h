#pragma once
// CClick: the metronome and the count-in and wait-for-note state that recording reads. It is not a
// component; the engine runs it once per cycle after the graph. The click sound itself comes with the
// sample subsystem; here it keeps the beat position and runs the count-in down.

#include <cstdint>

#include "core/object.h"

class CQV;

class CClick : public CObject {
public:
    explicit CClick(CQV* engine) : engine(engine) {}

    void process(int32_t frames, float* scratchLeft, float* scratchRight);
    void setPhase(double ticks);
    bool inCountIn() const { return countInFrames >= 1; }

    CQV* engine;
    int32_t enabled = 0;
    int32_t ticksPerClick = 960;
    float speed = 1.0f;
    double samplePos = 0.0;
    double tickPos = 0.0;
    float volume = 0.8f;
    uint8_t countInBeats = 2;
    uint8_t mode = 6;
    int32_t countInFrames = 0;
    int32_t waitNote = 0;
    int32_t noteHeard = 0;
};
