// The song model of the sequencer: construction, tracks and arrangements, terminal bookkeeping, and the
// part operations that need the sequencer (play length, duplicates and ghosts, event-edit swaps).

#include "engine/engine.h"
#include "engine/io.h"
#include "engine/undo.h"
#include "seq/seq.h"

namespace {

// word1, word2, ...: the first that `taken` refuses.
template <class Taken>
CString firstFreeName(const CString& word, Taken taken) {
    for (int32_t n = 1;; ++n) {
        CString candidate = word + intToString(n);
        if (!taken(candidate)) return candidate;
    }
}

CComp* firstComp(const CQV& engine, int32_t type) {
    for (CComp* comp : engine.comps)
        if (comp->kind == 1 && comp->subKind == type) return comp;
    return nullptr;
}

bool isTrack(const CObject& object) { return object.kind == 1 && object.subKind == compTrack; }

// Tracks of this sequencer that a step will add when it is applied; several tracks made in one step
// must not take the same name.
template <class Fn>
void forEachPendingTrack(const CSeq& seq, const CUndo* undo, Fn fn) {
    if (!undo) return;
    for (CUndoItem* item : undo->items) {
        if (!item->object || !isTrack(*item->object)) continue;
        const auto* track = static_cast<const CTrack*>(item->object);
        if (track->seq == &seq && seq.tracks.indexOf(track) < 0) fn(*track);
    }
}

CString nextTrackName(const CSeq& seq, int32_t type, const CUndo* undo) {
    return firstFreeName(trackTypeWord(type), [&](const CString& candidate) {
        bool taken = false;
        for (const CTrack* track : seq.tracks) taken = taken || track->name == candidate;
        forEachPendingTrack(seq, undo, [&](const CTrack& track) { taken = taken || track.name == candidate; });
        return taken;
    });
}

// Enters an object into a list the audio thread walks: through the step when there is one, else at
// once. A negative index means the end.
void enter(CList& list, CObject* object, CUndo* undo, int32_t index) {
    if (undo) insertItem(*undo, object, list, index < 0 ? -1 : index);
    else list.insert(index < 0 ? list.count() : index, object);
}

template <class T>
void enterTerminals(TList<T>& into, const TList<T>& terminals, CUndo* undo) {
    for (T* terminal : terminals) enter(into, terminal, undo, -1);
}

// Puts the terminals of `list` into the order of the tracks' views; terminals of no track stay behind
// them in their old order. Cells are relinked through a list on the stack, so nothing is allocated.
template <class T>
void sortLikeTracks(TList<T>& list, const TList<CTrack>& tracks, TList<T> CComp::*view) {
    CList ordered;
    for (CTrack* track : tracks)
        for (T* terminal : track->*view) CList::moveItem(ordered, list, terminal, -1);
    for (int32_t at = 0; !ordered.empty(); ++at) CList::moveItem(list, ordered, ordered.head()->item, at);
}

// A new instrument track listens to the first MIDI input; a new audio track records from the first
// audio input and plays into the first audio output.
void wireDefault(CSeq& seq, CTrack& track, CUndo& undo) {
    if (!seq.engine) return;
    if (track.type == trackInstrument) {
        CComp* midiIn = firstComp(*seq.engine, compMIDIIn);
        COutputPort* from = midiIn ? midiIn->firstOutputPort() : nullptr;
        if (from && track.firstInputPort())
            insertItem(undo, makeMIDICable(&seq, from, track.firstInputPort()), seq.midiCablesIn, -1);
    } else if (track.type == trackAudio) {
        CComp* audioIn = firstComp(*seq.engine, compAudioIn);
        COutputChannel* from = audioIn ? audioIn->firstOutputChannel() : nullptr;
        if (from && track.firstInputChannel())
            insertItem(undo, makeAudioCable(&seq, from, track.firstInputChannel()), seq.audioCablesIn, -1);
        CComp* audioOut = firstComp(*seq.engine, compAudioOut);
        CInputChannel* to = audioOut ? audioOut->firstInputChannel() : nullptr;
        if (to && track.firstOutputChannel())
            insertItem(undo, makeAudioCable(audioOut, track.firstOutputChannel(), to), audioOut->audioCablesIn, -1);
    }
}

bool isSingleClipAudio(const CPart& part) {
    return part.subKind == partAudio && static_cast<const CAudioPart&>(part).multiClip == 0;
}

}  // namespace

CSeq::CSeq(CQV* engine) : CComp(engine, compSequencer) { name = "Sequencer"; }

CSeq::~CSeq() {
    // Arrangements go first: their song tracks name the tracks and their ghosts the hidden sources.
    programs.deleteAll();
    tracks.deleteAll();
    ghostSources.deleteAll();
}

void CSeq::createPorts() { addProg(); }

CSeqProg* CSeq::addProg(CUndo* undo) {
    auto* prog = new CSeqProg(this);
    prog->name = firstFreeName("Mix ", [this](const CString& candidate) {
        for (const CObject* existing : programs)
            if (existing->name == candidate) return true;
        return false;
    });
    for (CTrack* track : tracks) prog->songTracks.add(new CSongTrack(prog, track));
    enter(programs, prog, undo, -1);
    return prog;
}

CTrack* CSeq::trackOf(const CIO* io) const {
    if (!io) return nullptr;
    for (CTrack* track : tracks) {
        if (track->inputPorts.indexOf(io) >= 0 || track->outputPorts.indexOf(io) >= 0 ||
            track->inputChannels.indexOf(io) >= 0 || track->outputChannels.indexOf(io) >= 0)
            return track;
    }
    return nullptr;
}

CComp* CSeq::findTrack(const COutputChannel* channel) const {
    if (!channel) return nullptr;
    for (CTrack* track : tracks)
        if (track->firstOutputChannel() == channel) return track;
    return nullptr;
}

CString CSeq::channelLabel(const CIO* io) const {
    if (const CTrack* track = trackOf(io)) return track->getName();
    return CComp::channelLabel(io);
}

void CSeq::changed(uint32_t changeBits) {
    if (changeBits & undoflag::sequencerChanged) sortTerminals();
}

void CSeq::sortTerminals() {
    sortLikeTracks(inputPorts, tracks, &CComp::inputPorts);
    sortLikeTracks(outputPorts, tracks, &CComp::outputPorts);
    sortLikeTracks(inputChannels, tracks, &CComp::inputChannels);
    sortLikeTracks(outputChannels, tracks, &CComp::outputChannels);
}

void registerSequencerTypes() {
    registerCompType(compSequencer, [](CQV* engine) -> CComp* { return new CSeq(engine); });
}

CString trackName(const CSeq& seq, int32_t type) { return nextTrackName(seq, type, nullptr); }

CString addTrackTitle(int32_t type) {
    switch (type) {
    case trackInstrument: return "Add MIDI track";
    case trackAudio: return "Add Audio track";
    case trackFolder: return "Add Folder track";
    default: return "Add track";
    }
}

CTrack* addTrack(CSeq& seq, int32_t type, CUndo* undo, int32_t index) {
    // From here the track belongs to the sequencer's list, or to the step until it is applied.
    auto* track = new CTrack(seq.engine, &seq, type);
    track->name = nextTrackName(seq, type, undo);
    track->createPorts();
    if (seq.blockFrames > 0) track->setBlockSize(seq.blockFrames);

    enter(seq.tracks, track, undo, index);
    enterTerminals(seq.inputPorts, track->inputPorts, undo);
    enterTerminals(seq.outputPorts, track->outputPorts, undo);
    enterTerminals(seq.inputChannels, track->inputChannels, undo);
    enterTerminals(seq.outputChannels, track->outputChannels, undo);
    for (CObject* object : seq.programs) {
        auto* prog = static_cast<CSeqProg*>(object);
        enter(prog->songTracks, new CSongTrack(prog, track), undo, index);
    }

    if (undo) {
        wireDefault(seq, *track, *undo);
        // The terminals went in at the end; the sequencer puts them into track order once applied.
        undo->flags |= undoflag::sequencerChanged;
    } else {
        seq.sortTerminals();
    }
    return track;
}

int32_t partPlayLength(const CSeq& /*seq*/, CPart& part) {
    // A single-clip audio part whose clip plays at its sample's own speed is to follow its audio here:
    // its length worked out from the clip's frames through the tempo map and stored back into the part.
    // That needs the sample (its rate and whether it is ready), which the audio-part code will bring;
    // until then every part plays its stored length.
    return part.effectiveLength();
}

CPart* makeGhost(CSeq& seq, CPart& part, bool asGhost) {
    if (!asGhost || isSingleClipAudio(part)) {
        if (!part.ghostSource) return part.clone(0);
        // An independent copy of what the ghost plays, placed where the ghost lies.
        CPart* copy = part.ghostSource->clone(0);
        copy->start = part.start;
        copy->length = part.length;
        copy->name = part.name;
        copy->flags.store(part.flags.load(std::memory_order_relaxed), std::memory_order_relaxed);
        return copy;
    }
    if (part.ghostSource) return part.clone(0);

    // The part hands its content to a new hidden source and becomes the first ghost of it. Pointing the
    // part at itself makes clone copy the fields only, as for a ghost.
    part.ghostSource = &part;
    CPart* source = part.clone(0);
    source->ghostSource = nullptr;
    part.ghostSource = source;
    part.swapContents(source);
    seq.ghostSources.add(source);
    return part.clone(0);
}

void swapPart(CUndo& undo, CPart* part, CPart* copy) {
    // Edits of a ghost are edits of what all its ghosts play. The chains change hands when the step is
    // applied, at the end of a cycle, so the cycle never reads a chain while it is being swapped.
    swapContentsOnApply(undo, part->contentHolder(), copy, [](CObject* object, CObject* other) {
        static_cast<CPart*>(object)->swapContents(static_cast<CPart*>(other));
    });
}
