#pragma once
// CUndo: the carrier of every structural change of the model. The GUI builds a step without touching the
// lists the audio thread walks and posts it; the step's items then perform the change on the audio thread
// at the end of a cycle, or on the GUI tick when no audio runs. Undo and redo run the same items again in
// the other direction. The engine keeps the history; the higher subsystems build the items.
//
// Nothing that runs a step allocates: objects move between lists by relinking their list cells, and
// whatever an item needs later (the holder's cell for a new object, the record of taken cables) is made
// on the GUI thread when the item is built.

#include <atomic>
#include <cstdint>
#include <memory>
#include <utility>

#include "core/list.h"
#include "core/object.h"

class CComp;
class CQV;
class CUndo;

// Step flags with a meaning for the engine; the others go to the owner's changeFlags.
namespace undoflag {
constexpr uint32_t componentsA = 0x10;
constexpr uint32_t componentsB = 0x800;
constexpr uint32_t engine200 = 0x200;
constexpr uint32_t engine400000 = 0x400000;
constexpr uint32_t tellEachA = 0x02;
constexpr uint32_t tellEachB = 0x20;
constexpr uint32_t sequencerChanged = 0x20;
// Raised on every CSeq when a run changed the engine's component lists: its ports must be rebuilt.
constexpr uint64_t sequencerPorts = 0x10;
}  // namespace undoflag

// The direction handed to undoApplied: forward for apply and redo, backward for undo.
namespace undodirection {
constexpr int32_t forward = 1;
constexpr int32_t backward = 4;
}  // namespace undodirection

// Swaps the contents of two objects of a higher subsystem (a part and its copy); set by whoever builds
// the item, so that the engine can run it without knowing the class.
using SwapContents = void (*)(CObject* object, CObject* other);

class CUndoItem : public CObject {
public:
    explicit CUndoItem(CUndo* step, int32_t kind = 0, int32_t subKind = 0) : CObject(kind, subKind), step(step) {}
    // Deletes what the holder still holds and the cables taken with it: they left the model and never
    // came back.
    ~CUndoItem() override;

    // Where a taken cable was: its list and its place there after the cables taken before it had gone.
    struct CableHome {
        CList* list = nullptr;
        int32_t index = -1;
    };

    CUndo* step;
    int32_t index = -1;  // place in applyTo for the next run; -1 at the end
    CObject* object = nullptr;
    CObject* other = nullptr;
    void** pointerCell = nullptr;  // accessed by byte copies only, so any object pointer type fits
    void* pointerValue = nullptr;
    int32_t* wordCell = nullptr;
    int32_t wordValue = 0;
    int32_t* secondCell = nullptr;  // may hold a float: accessed by byte copies only
    int32_t secondValue = 0;
    CList* fromList = nullptr;  // as built; null means the object starts in the holder
    CList* toList = nullptr;    // as built; null means a removal into the holder
    TList<CObject> holder;      // owns what it holds
    CList* applyFrom = nullptr;  // direction of the next run
    CList* applyTo = nullptr;
    uint32_t kindFlags = 0;  // for the subsystem that built the item: how a detached object is cleaned up
    SwapContents swapContents = nullptr;
    // The saved values and contents are the new ones: the first run swaps them in, on the audio thread,
    // so a value the cycle reads is never written while it runs.
    bool swapOnApply = false;
    CUndoItem* previous = nullptr;  // set by an undo, which walks the step backwards without memory

    // Cables that touched the object when it left the graph, and where each came from.
    TList<CObject> takenCables;
    std::unique_ptr<CableHome[]> cableHomes;
    int32_t cableHomeCapacity = 0;
};

class CUndo : public CObject {
public:
    CUndo(CString stepName, CComp* owner, uint32_t flags) : owner(owner), flags(flags) { name = std::move(stepName); }
    ~CUndo() override { items.deleteAll(); }

    // A step with no items only carries its flags.
    virtual bool hasItems() const { return !items.empty(); }
    // Performs the change: the items in order, then the step's flags.
    virtual void apply(CQV& engine);
    // Undo: the items from the last to the first. Redo: in order again.
    virtual void revert(CQV& engine);
    virtual void reapply(CQV& engine);

    CComp* owner;
    uint32_t flags;
    // 1 after an undo, 0 after a redo; written where the step runs.
    std::atomic<uint8_t> done{0};
    TList<CUndoItem> items;  // owned
    // Runs of this step waiting in the deferred queue; the history keeps a step it cuts off alive until
    // this is 0.
    std::atomic<int32_t> queued{0};

protected:
    void raiseFlags(CQV& engine, int32_t direction);
};

// Opens a step: marks an edit as open on the engine.
CUndo* beginUndo(CQV& engine, CString name, CComp* owner, uint32_t flags);
// A blank item appended to the step, for forms the functions below don't cover.
CUndoItem& addItem(CUndo& step, int32_t kind = 0, int32_t subKind = 0);
// A new object goes into list at index (-1: at the end). The holder keeps it until then, and deletes it if
// the step is dropped while the object is out.
CUndoItem& insertItem(CUndo& step, CObject* object, CList& list, int32_t index);
// Moves object from fromList to toList at index. toList null is a removal into the holder; fromList null
// takes the object from the holder, like insertItem.
CUndoItem& removeItem(CUndo& step, CObject* object, CList* fromList, CList* toList, int32_t index);
// Replaces object by replacement in list, keeping the place. Before each run, object is the one in the
// list and other the one in the holder.
CUndoItem& swapItem(CUndo& step, CObject* object, CObject* replacement, CList& list);
// The caller has already swapped the contents of object and other; undo and redo swap them again.
// The holder keeps other alive for as long as the step lives.
CUndoItem& swapContentsItem(CUndo& step, CObject* object, CObject* other, SwapContents swap);
// The word forms keep the value a cell holds now; the caller then writes the new value straight into the
// cell. Undo and redo swap cell and kept value. saveWord and savePointer start a new item; saveSecond
// joins the last item when its second cell is free.
CUndoItem& saveWord(CUndo& step, int32_t* cell);
CUndoItem& saveSecond(CUndo& step, int32_t* cell);
CUndoItem& saveSecond(CUndo& step, float* cell);
CUndoItem& savePointer(CUndo& step, void** cell);
// The cell takes `value` when the step is applied, at the end of a cycle; undo and redo swap as above.
CUndoItem& changeWord(CUndo& step, int32_t* cell, int32_t value);
CUndoItem& changeSecond(CUndo& step, float* cell, float value);
// Like swapContentsItem, but the contents are swapped when the step is applied, not by the caller.
CUndoItem& swapContentsOnApply(CUndo& step, CObject* object, CObject* other, SwapContents swap);
template <class T>
CUndoItem& savePointer(CUndo& step, T** cell) {
    static_assert(sizeof(T*) == sizeof(void*));
    return savePointer(step, reinterpret_cast<void**>(cell));
}
