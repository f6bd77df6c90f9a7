#pragma once
// CWavSound: a sample clip played at the pitch of the key, through the filter, envelopes and LFOs the
// oscillator sound also has. Only the first zone plays; the others are kept so that a file brings them
// back.
//
// A voice reads the clip in control chunks through the 4-point interpolation and filters what it reads.
// A 16-bit clip held in memory is interpolated straight from its bytes; any other clip, and any chunk
// that reaches past the clip's ends, has the clip convert its frames to floats first. Both ways give the
// same bits. A chunk that would pass the clip's end is cut there: the voice then
// jumps to the loop start, or ends at once with no closing interval. Nothing in process allocates; an
// in-memory clip is read without a lock.

#include <cstdint>

#include "core/list.h"
#include "sound/sample.h"
#include "sound/sound.h"

class CWavSound : public CSound {
public:
    static constexpr int32_t maxZones = 127;
    // The most frames one control chunk of a voice takes: 1 ms at any rate up to 512 kHz.
    static constexpr int32_t maxChunkFrames = 512;

    CWavSound();

    void process(float* outL, float* outR, SamplerVoice& voice, int32_t frames) override;
    // Up to `maxGroup` voices of sampled sounds into the same outputs, as `process` would render each, in
    // one pass where their frames allow it.
    static constexpr int32_t maxGroup = 4;
    static void processGroup(float* outL, float* outR, SamplerVoice* const* voices, int32_t count, int32_t frames);
    // Lets a test hold the interpolation to four lanes where the processor has eight, to compare the two.
    static void allowWideLanes(bool allowed);
    // The clip's range and rate at the voice's start.
    void startVoice(SamplerVoice& voice) override;
    // A sampled sound takes notes only once its first clip has loaded.
    bool canPlay() const override;
    // Zone 0 plays this clip; the sound takes the clip's file name.
    void setSample(CSampleClip* clip);

    int32_t zones = 0;
    CSampleClip* sample[maxZones] = {};  // not owned: clips of the sampler's pool
    const TList<CSampleClip>* pool = nullptr;  // the sampler's pool, for the clip indices in files
    Meter holdL{0.0f}, holdR{0.0f};  // the editor's clip indicator

    // One voice's chunks, planned and stepped past.
    class Walk;

protected:
    void saveKind(CStream& stream) const override;
    void loadKind(BlockIn& in) override;
};
