#include "engine/undo.h"

#include <cstring>
#include <utility>

#include "engine/engine.h"
#include "engine/io.h"

namespace {

// Object tags of the things whose removal takes cables with it.
constexpr int32_t kindComponent = 1;
constexpr int32_t kindPort = 8;
constexpr int32_t kindChannel = 16;
constexpr int32_t cableSubKindMIDI = 1;

// Room for cables that steps queued ahead of this one may connect before it runs.
constexpr int32_t spareCableHomes = 8;

bool carriesCables(const CObject* object) {
    return object && (object->kind == kindComponent || object->kind == kindPort || object->kind == kindChannel);
}

CQV* engineOf(const CObject* object) {
    if (object->kind == kindComponent) return static_cast<const CComp*>(object)->engine;
    const CComp* owner = static_cast<const CIO*>(object)->owner;
    return owner ? owner->engine : nullptr;
}

struct CableEnds {
    CComp* source;
    CIO* input;
    CIO* output;
};

CableEnds endsOf(const CObject* cable) {
    if (cable->subKind == cableSubKindMIDI) {
        const auto* midi = static_cast<const CMIDICable*>(cable);
        return {midi->source, midi->input, midi->output};
    }
    const auto* audio = static_cast<const CAudioCable*>(cable);
    return {audio->source, audio->input, audio->output};
}

// The list a cable lives in by the rule that a cable belongs to its destination.
CList& ownListOf(CObject* cable) {
    if (cable->subKind == cableSubKindMIDI) return static_cast<CMIDICable*>(cable)->destination->midiCablesIn;
    return static_cast<CAudioCable*>(cable)->destination->audioCablesIn;
}

// A component's own cables travel with it; the others that reach it through a terminal must go.
bool touches(const CObject* cable, const CObject* object) {
    const CableEnds ends = endsOf(cable);
    if (object->kind == kindComponent)
        return ends.source == object || ends.output->owner == object || ends.input->owner == object;
    return ends.output == object || ends.input == object;
}

// Calls fn for every cable list of the graph: the engine's components, its group channels and their
// children, leaving out the subtree of skip, which takes its own cables along.
template <class T, class Fn>
void forEachCableList(const TList<T>& comps, const CObject* skip, Fn& fn) {
    for (CComp* comp : comps) {
        if (comp == skip) continue;
        fn(comp->audioCablesIn);
        fn(comp->midiCablesIn);
        forEachCableList(comp->comps, skip, fn);
    }
}

template <class Fn>
void forEachCableList(CQV& engine, const CObject* skip, Fn fn) {
    forEachCableList(engine.comps, skip, fn);
    forEachCableList(engine.groupChannels, skip, fn);
}

bool isEngineList(const CQV& engine, const CList* list) {
    return list == &engine.comps || list == &engine.groupChannels;
}

// Made on the GUI thread while the item is built, so that taking cables later needs no allocation.
void reserveCableHomes(CUndoItem& item) {
    if (!carriesCables(item.object)) return;
    int32_t touching = 0;
    if (CQV* engine = engineOf(item.object)) {
        forEachCableList(*engine, item.object, [&](const CList& list) {
            for (CList::Cell* cell = list.head(); cell; cell = cell->next)
                if (touches(static_cast<const CObject*>(cell->item), item.object)) ++touching;
        });
    }
    item.cableHomeCapacity = touching + spareCableHomes;
    item.cableHomes = std::make_unique<CUndoItem::CableHome[]>(static_cast<size_t>(item.cableHomeCapacity));
}

bool leavesGraph(const CQV& engine, const CUndoItem& item) {
    return item.applyTo == &item.holder || (isEngineList(engine, item.applyFrom) && !isEngineList(engine, item.applyTo));
}

// Moves the cables that touch the object out of the graph into the item, newest at the head, noting for
// each its list and its place there at the moment it left.
void takeCables(CQV& engine, CUndoItem& item) {
    int32_t taken = item.takenCables.count();
    forEachCableList(engine, item.object, [&](CList& list) {
        int32_t position = 0;
        for (CList::Cell* cell = list.head(); cell;) {
            CList::Cell* next = cell->next;
            void* cable = cell->item;
            if (touches(static_cast<const CObject*>(cable), item.object) &&
                CList::moveItem(item.takenCables, list, cable, 0)) {
                if (taken < item.cableHomeCapacity) item.cableHomes[taken] = {&list, position};
                ++taken;
            } else {
                ++position;
            }
            cell = next;
        }
    });
}

// Puts the cables back, the last taken first, so that every one returns to its old place.
void returnCables(CUndoItem& item) {
    for (int32_t k = item.takenCables.count() - 1; k >= 0; --k) {
        auto* cable = static_cast<CObject*>(item.takenCables.head()->item);
        CUndoItem::CableHome home = k < item.cableHomeCapacity ? item.cableHomes[k] : CUndoItem::CableHome{};
        if (!home.list) home.list = &ownListOf(cable);
        CList::moveItem(*home.list, item.takenCables, cable, home.index);
    }
}

// Forgets the engine's shortcuts to a component that left its lists; beginCycle finds them anew.
void forgetShortcuts(CQV& engine, const CObject* object) {
    if (engine.sequencer == object) engine.sequencer = nullptr;
    if (engine.mainOut && static_cast<const CObject*>(engine.mainOut) == object) engine.mainOut = nullptr;
}

// One run of an item's list work; every run does the same and leaves the item set for the reverse one.
// Returns whether something moved. An object that isn't where the step left it is left alone.
bool runMove(CQV& engine, CUndoItem& item) {
    if (!item.object || !item.applyFrom || !item.applyTo) return false;
    if (item.applyFrom == item.applyTo) {
        CList& list = *item.applyFrom;
        const int32_t at = list.indexOf(item.object);
        if (!item.other || at < 0 || !CList::moveItem(list, item.holder, item.other, at)) return false;
        CList::moveItem(item.holder, list, item.object, -1);
        std::swap(item.object, item.other);
        return true;
    }
    const int32_t from = item.applyFrom->indexOf(item.object);
    if (from < 0) return false;
    const bool carries = carriesCables(item.object);
    const bool leaving = carries && leavesGraph(engine, item);
    if (leaving) takeCables(engine, item);
    if (!CList::moveItem(*item.applyTo, *item.applyFrom, item.object, item.index)) {
        if (leaving) returnCables(item);
        return false;
    }
    if (leaving) forgetShortcuts(engine, item.object);
    else if (carries) returnCables(item);
    item.index = from;
    std::swap(item.applyFrom, item.applyTo);
    return true;
}

// Swaps a 32-bit or pointer cell with the kept value by bytes, so that a float cell is never read as an
// int nor a typed pointer as void*.
template <class T>
void swapCell(void* cell, T& kept) {
    if (!cell) return;
    T now;
    std::memcpy(&now, cell, sizeof(T));
    std::memcpy(cell, &kept, sizeof(T));
    kept = now;
}

void swapValues(CUndoItem& item) {
    swapCell(item.wordCell, item.wordValue);
    swapCell(item.secondCell, item.secondValue);
    swapCell(item.pointerCell, item.pointerValue);
    if (item.swapContents && item.object && item.other) item.swapContents(item.object, item.other);
}

// Tells the sequencers first (the owner hears it last, and only once), then what a list move implies
// for the engine, then the owner.
void itemApplied(CQV& engine, CComp* owner, CUndoItem& item, int32_t direction, bool moved) {
    for (CComp* comp : engine.comps)
        if (comp->isSequencer() && comp != owner) comp->undoApplied(&item, direction);
    if (moved) {
        if (isEngineList(engine, item.applyFrom) || isEngineList(engine, item.applyTo)) {
            for (CComp* comp : engine.comps)
                if (comp->isSequencer()) comp->raise(undoflag::sequencerPorts);
        }
        engine.raise(change::latency);
    }
    if (owner) owner->undoApplied(&item, direction);
}

void runItem(CQV& engine, CUndo& step, CUndoItem& item, int32_t direction, bool swapSaved) {
    if (swapSaved) swapValues(item);
    const bool moved = runMove(engine, item);
    itemApplied(engine, step.owner, item, direction, moved);
}

CUndoItem& keepSecond(CUndo& step, void* cell) {
    CUndoItem* last = step.items.getAt(step.items.count() - 1);
    CUndoItem& item = last && !last->secondCell ? *last : addItem(step);
    item.secondCell = static_cast<int32_t*>(cell);
    std::memcpy(&item.secondValue, cell, sizeof(item.secondValue));
    return item;
}

}  // namespace

CUndoItem::~CUndoItem() {
    holder.deleteAll();
    takenCables.deleteAll();
}

void CUndo::raiseFlags(CQV& engine, int32_t direction) {
    using namespace undoflag;
    if (flags & (componentsA | componentsB)) engine.raise(0x1 | change::graph);
    if (flags & engine200) engine.raise(engine200);
    if (flags & engine400000) engine.raise(engine400000);
    if (flags & (tellEachA | tellEachB)) {
        for (CComp* comp : engine.comps) comp->undoApplied(nullptr, direction);
    }
    if (flags & sequencerChanged) {
        for (CComp* comp : engine.comps)
            if (comp->isSequencer()) comp->changed(flags);
    }
    const uint32_t rest =
        flags & ~(componentsA | componentsB | engine200 | engine400000 | tellEachA | tellEachB);
    if (rest && owner) owner->raise(rest);
    engine.raise(change::undoApplied);
}

void CUndo::apply(CQV& engine) {
    for (CUndoItem* item : items) runItem(engine, *this, *item, undodirection::forward, item->swapOnApply);
    raiseFlags(engine, undodirection::forward);
    engine.editOpen.store(false, std::memory_order_relaxed);
}

void CUndo::revert(CQV& engine) {
    done.store(1, std::memory_order_relaxed);
    // A singly linked list has no way back: link the items backwards first, which needs no memory.
    CUndoItem* last = nullptr;
    for (CUndoItem* item : items) {
        item->previous = last;
        last = item;
    }
    for (CUndoItem* item = last; item; item = item->previous)
        runItem(engine, *this, *item, undodirection::backward, true);
    raiseFlags(engine, undodirection::backward);
}

void CUndo::reapply(CQV& engine) {
    done.store(0, std::memory_order_relaxed);
    for (CUndoItem* item : items) runItem(engine, *this, *item, undodirection::forward, true);
    raiseFlags(engine, undodirection::forward);
}

CUndo* beginUndo(CQV& engine, CString name, CComp* owner, uint32_t flags) {
    engine.editOpen.store(true, std::memory_order_relaxed);
    return new CUndo(std::move(name), owner, flags);
}

CUndoItem& addItem(CUndo& step, int32_t kind, int32_t subKind) {
    auto* item = new CUndoItem(&step, kind, subKind);
    step.items.add(item);
    return *item;
}

CUndoItem& insertItem(CUndo& step, CObject* object, CList& list, int32_t index) {
    return removeItem(step, object, nullptr, &list, index);
}

CUndoItem& removeItem(CUndo& step, CObject* object, CList* fromList, CList* toList, int32_t index) {
    CUndoItem& item = addItem(step);
    item.object = object;
    item.fromList = fromList;
    item.toList = toList;
    item.index = index;
    item.applyFrom = fromList ? fromList : &item.holder;
    item.applyTo = toList ? toList : &item.holder;
    if (!fromList && object) item.holder.add(object);
    reserveCableHomes(item);
    return item;
}

CUndoItem& swapItem(CUndo& step, CObject* object, CObject* replacement, CList& list) {
    CUndoItem& item = addItem(step);
    item.object = object;
    item.other = replacement;
    item.fromList = item.toList = &list;
    item.applyFrom = item.applyTo = &list;
    item.holder.add(replacement);
    return item;
}

CUndoItem& swapContentsItem(CUndo& step, CObject* object, CObject* other, SwapContents swap) {
    CUndoItem& item = addItem(step);
    item.object = object;
    item.other = other;
    item.swapContents = swap;
    item.holder.add(other);
    return item;
}

CUndoItem& saveWord(CUndo& step, int32_t* cell) {
    CUndoItem& item = addItem(step);
    item.wordCell = cell;
    item.wordValue = *cell;
    return item;
}

CUndoItem& saveSecond(CUndo& step, int32_t* cell) { return keepSecond(step, cell); }

CUndoItem& saveSecond(CUndo& step, float* cell) {
    static_assert(sizeof(float) == sizeof(int32_t));
    return keepSecond(step, cell);
}

CUndoItem& savePointer(CUndo& step, void** cell) {
    CUndoItem& item = addItem(step);
    item.pointerCell = cell;
    std::memcpy(&item.pointerValue, cell, sizeof(item.pointerValue));
    return item;
}

CUndoItem& changeWord(CUndo& step, int32_t* cell, int32_t value) {
    CUndoItem& item = addItem(step);
    item.wordCell = cell;
    item.wordValue = value;
    item.swapOnApply = true;
    return item;
}

CUndoItem& changeSecond(CUndo& step, float* cell, float value) {
    CUndoItem& item = addItem(step);
    item.secondCell = reinterpret_cast<int32_t*>(cell);
    std::memcpy(&item.secondValue, &value, sizeof(item.secondValue));
    item.swapOnApply = true;
    return item;
}

CUndoItem& swapContentsOnApply(CUndo& step, CObject* object, CObject* other, SwapContents swap) {
    CUndoItem& item = swapContentsItem(step, object, other, swap);
    item.swapOnApply = true;
    return item;
}
