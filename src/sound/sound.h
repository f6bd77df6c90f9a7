#pragma once
// CSound: the unit of sound and of mixing. A layer of a program holds sounds; each sound owns its
// modulators and two insert effects, and all voices of one sound render into the same two buffers,
// which then pass the sound's inserts and send taps once.
//
// Two rates: a voice's process works in control chunks of at most 1 ms. At the head of each chunk the
// modulators are advanced and applied to the working targets; the audio loop then runs per sample with
// linear ramps towards what the chunk worked out. A chunk is cut short wherever a glide, a modulator
// segment, an LFO delay or an LFO wrap ends, so that those fall on chunk boundaries.
//
// The working targets are fields of the sound, rebuilt for every voice and chunk: nothing of one voice
// reaches the next. Settings are plain fields the editor writes directly; a voice reads them at its
// next chunk.

#include <atomic>
#include <cstdint>
#include <memory>

#include "core/object.h"
#include "engine/fx.h"
#include "engine/terminal.h"
#include "sound/modulation.h"
#include "sound/voice.h"

class BlockIn;
class CLayer;
class CStream;
class CSynthProg;

enum SoundKind : int32_t { soundSampled = 1, soundOscillator = 2 };
enum FilterOutput : int32_t { filterLow = 0, filterBand = 1, filterHigh = 2 };
enum SoundMode : uint8_t { modePoly = 0, modeMono = 1 };

constexpr int32_t envelopeCount = 6;
constexpr int32_t controllerCount = 128;
constexpr int32_t soundSends = 2;

// How an LFO's samples to the next wrap are rounded: oscillator voices round to nearest, sampled ones
// truncate.
enum class WrapRounding { nearest, truncate };

class CSound : public CObject {
public:
    explicit CSound(int32_t subKind);
    ~CSound() override;

    // Adds `frames` samples of one voice into outL, outR.
    virtual void process(float* outL, float* outR, SamplerVoice& voice, int32_t frames) = 0;
    // Gains and coefficients start at their targets, filter taps and state are set, modulators start.
    virtual void noteOn(SamplerVoice& voice);
    virtual void startModulators(SamplerVoice& voice);
    // The kind's own start fields of a voice, set when the voice is allocated.
    virtual void startVoice(SamplerVoice& /*voice*/) {}
    // Whether the sound can take a note now.
    virtual bool canPlay() const { return true; }
    // Writes a controller or parameter value (0..1) into the base field of a modulation target, so that
    // it lasts. Targets 0 and 1 have no base field.
    virtual void setTargetBase(int32_t target, float v);
    // Brings the value of every running modulator of the voice to where its segment stands, as a
    // release needs it.
    static void catchUp(SamplerVoice& voice);

    // The insert effects follow the engine's block size and rate.
    void setBlockSize(int32_t frames);
    void setSampleRate(float rate);

    // "sound", "soundmod" and "soundfx".
    void save(CStream& stream) const;
    // The "sound" payload after its first byte (the kind, which the loader has read to make the sound).
    void loadSound(BlockIn& in);
    void loadModulation(BlockIn& in);
    void loadEffects(BlockIn& in);

    // The program this sound belongs to, through its layer; null for a sound outside any layer.
    CSynthProg* program() const;

    CLayer* layer = nullptr;
    uint8_t mode = modePoly;
    uint8_t mute = 0;  // takes no note-ons
    uint8_t solo = 0;  // drum pads
    uint8_t drumFlag = 0;  // drum pads; stored and restored here
    float volume = 1.0f;
    float pan = 0.0f;
    int32_t filter = filterLow;
    float cutoff = 1.0f;
    float q = 0.0f;  // used up to 0.97
    int32_t dist = 0;  // oscillator sounds only
    float coarse = 0.0f;  // semitones
    float fine = 0.0f;
    int32_t keyLow = 0, keyHigh = 127;  // both ends included
    int32_t velLow = 0, velHigh = 127;
    uint8_t group = 0;  // voice group, 0: none
    int32_t glide = 0;  // ms
    float lastNote = -1.0f;  // -1: no note yet
    int32_t bendRange = 12;  // semitones
    CEnv envelope[envelopeCount];
    CLFO lfo[lfoCount];
    CPitchEnv pitchEnv;
    CVel vel;
    CCP cp;
    int32_t ccMap[controllerCount] = {};  // the modulation target each controller sets
    float sends[soundSends] = {0.0f, 0.0f};  // into the program's reverb and delay
    std::unique_ptr<CFX> fx[2];  // phaser, chorus: inserts, in place
    Meter peakL{0.0f}, peakR{0.0f};
    int32_t voiceCounter = 0;  // voices rendered so far in the current sub-block

protected:
    // The kind's part of the "sound" block.
    virtual void saveKind(CStream& /*stream*/) const {}
    virtual void loadKind(BlockIn& /*in*/) {}

    // A chunk of at most `chunk` frames, cut at the end of a glide, of any running segment, of any LFO
    // delay and at the next wrap of any LFO.
    int32_t cutChunk(SamplerVoice& voice, int32_t chunk, WrapRounding rounding) const;
    // Notes in the voice which of its modulators and LFOs reach a target, for the chunks of one run of
    // frames: a run ends at the next event, so routing that events change takes effect where they fall.
    static void noteReaching(SamplerVoice& voice);
    // Advances modulator values and LFOs for the chunk and applies all routing to `targets`.
    void modulate(SamplerVoice& voice, int32_t chunk);
    // Glide and modulators step past the chunk; when the amplitude envelope has ended, the closing
    // interval begins.
    void endChunk(SamplerVoice& voice, int32_t chunk) const;
    // The pan law with levels squared: v = volume^2; hard pan gives 1.5 v on one side and 0 on the other.
    static void panGains(float volume, float pan, float& gainL, float& gainR);
    // The pitch-wheel offset of the sound's program in semitones.
    float bendSemitones() const;

    // The working modulation targets of the current voice and chunk; [0] is scratch.
    float targets[targetCount] = {};
};

// Makes a sound of a kind; null for a kind that has no class here.
CSound* createSound(int32_t subKind);
