#pragma once
// CEffect: the "Multi Effect" component. It runs the effects of its current program in list order over
// one stereo input channel into one stereo output channel.
//
// How a block runs:
//  - The block is cut at the parameter events aimed at this component (-1 power, -2 wet level), so a
//    change takes effect at its frame.
//  - Each piece goes through two scratch buffers: the first enabled effect reads the input channel, each
//    later one works in place on the scratch. The scratch is cleared first because the delay and the
//    reverb add into their output.
//  - Power off, or a program with no enabled effect, copies the input. Wet level is only stored here;
//    the channel strip that hosts the component mixes it.
//  - The scratch is sized by setBlockSize; process never allocates.

#include <cstdint>
#include <memory>

#include "engine/comp.h"
#include "engine/fx.h"

// One program of the chain.
class CEffectProg : public CObject {
public:
    CEffectProg();
    ~CEffectProg() override;

    TList<CFX> effects;  // owned, run in list order
};

class CEffect : public CComp {
public:
    explicit CEffect(CQV* engine);

    void createPorts() override;
    bool takesAudio() const override { return true; }
    void setBlockSize(int32_t frames) override;
    void setSampleRate(double rate) override;
    void processBlock(int32_t frames) override;

    // -1 power: on when value > 0. -2 wet level: clamped to 0..1.
    void setParam(int32_t index, float value) override;
    CString getParamName(int32_t index) const override;
    CString getParamDisplay(int32_t index) const override;
    CString getProgramName(int32_t index) const override;
    void setProgramName(int32_t index, CString name) override;

    void save(CStream& stream) override;
    // Appends the programs it reads; deletes nothing.
    void load(CStream& stream, int32_t end) override;
    CComp* copy() const override;

    CEffectProg* effectProgram(int32_t index) const;

private:
    void render(int32_t offset, int32_t frames);
    void applyEvent(const CMIDIEvent& event);
    void writeBlocks(CStream& stream) const;
    // Reads the fields of an "fx" block into a new effect of its kind.
    CFX* readEffect(CStream& stream) const;
    // The values a loaded effect starts with: the engine's, or this component's own without an engine.
    int32_t effectBlockSize() const;
    float effectSampleRate() const;

    std::unique_ptr<float[]> scratchL_, scratchR_;
    int32_t scratchFrames_ = 0;
    float sampleRate_ = 44100.0f;
};

// Lets createComp make the "Multi Effect" component.
void registerEffectComponents();
