#pragma once
// Cables. A cable belongs to the component at its input side (its destination) and sits in that
// component's audioCablesIn or midiCablesIn; nothing lists the cables that leave a component.

#include <cstdint>
#include <memory>

#include "core/object.h"
#include "engine/terminal.h"

class CComp;

// Compensation delay of one audio cable, summed at a hardware output.
class CCableDelay {
public:
    CCableDelay();
    void zeroRings();

    int32_t latency = 0;      // measured delay of the path before this cable
    int32_t position = 0;     // ring position
    int32_t delayFrames = 0;  // padding applied by this cable
    std::unique_ptr<float[]> ringLeft, ringRight;  // maxBlockFrames each
};

class CMIDICable : public CObject {
public:
    CMIDICable(CComp* destination, CIO* output, CIO* input);
    bool passes() const { return !input->detached.load(std::memory_order_relaxed) && !output->detached.load(std::memory_order_relaxed); }

    CComp* source;
    CComp* destination;
    CIO* input;   // CInputPort at the destination
    CIO* output;  // COutputPort at the source
};

class CAudioCable : public CObject {
public:
    CAudioCable(CComp* destination, CIO* output, CIO* input);
    bool passes() const { return !input->detached.load(std::memory_order_relaxed) && !output->detached.load(std::memory_order_relaxed); }
    COutputChannel* outputChannel() const { return static_cast<COutputChannel*>(output); }
    CInputChannel* inputChannel() const { return static_cast<CInputChannel*>(input); }

    // Adds the source channel into the input channel through the compensation delay, and meters the sum.
    void sumAtOutput(int32_t frames);

    std::unique_ptr<CCableDelay> delay;
    CComp* source;
    CComp* destination;
    CIO* input;   // CInputChannel at the destination
    CIO* output;  // COutputChannel at the source
};
