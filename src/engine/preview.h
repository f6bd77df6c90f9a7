#pragma once
// What the engine needs of the browser's preview player: it is mixed into the main output each cycle,
// and may wait for the next beat before it starts.

#include <cstdint>

class CBrowserPreview {
public:
    virtual ~CBrowserPreview() = default;
    virtual bool isPlaying() const = 0;
    virtual void process(float* left, float* right, float* scratchLeft, float* scratchRight, int32_t frames) = 0;
    // -1 while waiting for a beat; else the frames to wait before starting.
    int32_t startDelay = 0;
};
