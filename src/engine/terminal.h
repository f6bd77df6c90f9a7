#pragma once
// Terminals of a component: the base CIO, audio channels and sends. MIDI ports are in midi.h.
//
// Audio is 32-bit float, non-interleaved, one buffer per side, one block long. Meters are written by the
// audio thread and decayed by the GUI thread, so they are relaxed atomics: a lost update only shows in
// the meter.

#include <atomic>
#include <cstdint>
#include <memory>

#include "core/list.h"
#include "core/object.h"

class CComp;

// Largest block and largest compensation delay: delay rings are indexed with this mask.
constexpr int32_t maxBlockFrames = 32768;
constexpr int32_t ringMask = maxBlockFrames - 1;

using Meter = std::atomic<float>;

class CIO : public CObject {
public:
    CIO(CComp* owner, int32_t kind, int32_t subKind) : CObject(kind, subKind), owner(owner) {}

    CComp* owner;
    // A detached terminal is on its way out: cables touching it pass nothing and are swept.
    std::atomic<bool> detached{false};
};

// Left and right buffers of one channel, one block long, in one allocation.
class StereoBuffer {
public:
    void allocate(int32_t frames);
    void clear(int32_t frames);
    float* left = nullptr;
    float* right = nullptr;
    int32_t frames() const { return frames_; }

private:
    std::unique_ptr<float[]> storage_;
    int32_t frames_ = 0;
};

class CInputChannel : public CIO {
public:
    explicit CInputChannel(CComp* owner, int32_t channels = 2) : CIO(owner, 16, 1), channels(channels) {}

    void allocate(int32_t frames) { buffer.allocate(frames); }
    float* left() const { return buffer.left; }
    float* right() const { return buffer.right; }

    Meter peakLeft{0.0f}, peakRight{0.0f};
    Meter holdLeft{0.0f}, holdRight{0.0f};
    int32_t channels;
    StereoBuffer buffer;
};

class COutputChannel;

// One send of an output channel to a group channel; the strip uses level squared, after the fader.
class CSend : public CObject {
public:
    explicit CSend(COutputChannel* channel) : CObject(0, 3), channel(channel) {}
    COutputChannel* channel;
    std::atomic<float> level{0.0f};
    std::atomic<bool> disabled{false};
};

class COutputChannel : public CIO {
public:
    static constexpr int32_t maxSends = 32;

    explicit COutputChannel(CComp* owner, int32_t channels = 2);
    ~COutputChannel() override;

    void allocate(int32_t frames) { buffer.allocate(frames); }
    float* left() const { return buffer.left; }
    float* right() const { return buffer.right; }

    // Applies a parameter event addressed to this channel or one of its sends.
    void applyParamEvent(void* target, int32_t param, float value);
    // Runs the strip over frames [offset, offset + frames): for now the meters.
    void runStripPiece(int32_t offset, int32_t frames);
    bool ownsSend(const void* target) const;
    void zeroDelayRings();

    int32_t channels;
    StereoBuffer buffer;
    Meter peakLeft{0.0f}, peakRight{0.0f};
    Meter holdLeft{0.0f}, holdRight{0.0f};
    CSend* sends[maxSends] = {};
    TList<CComp> inserts;  // insert chain, owned
    std::atomic<int32_t> solo{0};
    bool anySolo = false;  // some strip of the project is soloed; set at the top of each cycle
    int32_t latency = 0;   // frames of delay on the way to this channel
    int32_t sendDelay = 0; // padding of the sends so that group channels hear every strip aligned
    std::unique_ptr<float[]> delayLeft, delayRight;  // rings of maxBlockFrames for the send padding
};
