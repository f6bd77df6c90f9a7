#pragma once
// CUndo: the carrier of every structural change of the model. The GUI builds a step without touching the
// model and posts it; the step's apply runs on the audio thread at the end of a cycle, or on the GUI
// tick when no audio runs. The engine keeps the history; the song subsystem supplies the items.

#include <cstdint>

#include "core/object.h"

class CComp;
class CQV;
class CUndoItem;

// Step flags with a meaning for the engine; the others go to the owner's changeFlags.
namespace undoflag {
constexpr uint32_t componentsA = 0x10;
constexpr uint32_t componentsB = 0x800;
constexpr uint32_t engine200 = 0x200;
constexpr uint32_t engine400000 = 0x400000;
constexpr uint32_t tellEachA = 0x02;
constexpr uint32_t tellEachB = 0x20;
constexpr uint32_t sequencerChanged = 32;
}  // namespace undoflag

class CUndo : public CObject {
public:
    CUndo(CString stepName, CComp* owner, uint32_t flags) : owner(owner), flags(flags) { name = stepName; }

    // A step with no items only carries its flags.
    virtual bool hasItems() const { return false; }
    // Performs the change (direction 1) and raises the step's flags.
    virtual void apply(CQV& engine);
    // Reverses and repeats an applied step.
    virtual void revert(CQV& engine);
    virtual void reapply(CQV& engine);

    CComp* owner;
    uint32_t flags;
    uint8_t done = 0;

protected:
    void raiseFlags(CQV& engine);
};
