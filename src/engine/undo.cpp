#include "engine/undo.h"

#include "engine/engine.h"

void CUndo::raiseFlags(CQV& engine) {
    uint32_t rest = flags;
    if (flags & (undoflag::componentsA | undoflag::componentsB)) engine.raise(0x1 | change::graph);
    if (flags & undoflag::engine200) engine.raise(undoflag::engine200);
    if (flags & undoflag::engine400000) engine.raise(undoflag::engine400000);
    if (flags & (undoflag::tellEachA | undoflag::tellEachB)) {
        for (CComp* comp : engine.comps) comp->undoApplied(nullptr, 1);
    }
    if (flags & undoflag::sequencerChanged) {
        for (CComp* comp : engine.comps)
            if (comp->isSequencer()) comp->changed(flags);
    }
    rest &= ~(undoflag::componentsA | undoflag::componentsB | undoflag::engine200 | undoflag::engine400000);
    if (rest && owner) owner->raise(rest);
    engine.raise(change::undoApplied);
}

void CUndo::apply(CQV& engine) { raiseFlags(engine); }

void CUndo::revert(CQV& engine) {
    done = 1;
    raiseFlags(engine);
}

void CUndo::reapply(CQV& engine) {
    done = 0;
    raiseFlags(engine);
}
