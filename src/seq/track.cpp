#include "seq/track.h"

#include "engine/engine.h"
#include "seq/seq.h"

namespace {

template <class T>
void setOwner(const TList<T>& terminals, CComp* owner) {
    for (T* terminal : terminals) terminal->owner = owner;
}

}  // namespace

CString trackTypeWord(int32_t type) {
    switch (type) {
    case trackFolder: return "folder";
    case trackInstrument: return "instrument";
    case trackAudio: return "audio";
    case trackDrum: return "drum";
    default: return "track";
    }
}

CTrack::CTrack(CQV* engine, CSeq* seq, int32_t type) : CComp(engine, compTrack), seq(seq), type(type) {
    name = trackTypeWord(type);
    height = defaultHeight;
    if (type == trackFolder) {
        height = folderHeight;
        flags.fetch_or(trackflag::expanded, std::memory_order_relaxed);
    }
    if (type == trackInstrument || type == trackAudio) {
        auto* velocity = new CSubTrack(laneVelocity);
        velocity->name = "Velocity";
        subTracks.add(velocity);
    }
    const int32_t setting = engine ? engine->getOption("track-noteh", defaultNoteHeight) : defaultNoteHeight;
    noteHeight = setting > 0 ? setting : defaultNoteHeight;
}

CTrack::~CTrack() {
    subTracks.deleteAll();
    // The sequencer's lists, or the undo items holding them, delete the terminals; they may be gone
    // already, so they are not looked at here. Only a track without a sequencer owns its terminals.
    if (seq) {
        inputPorts.clear();
        outputPorts.clear();
        inputChannels.clear();
        outputChannels.clear();
    }
}

void CTrack::createPorts() {
    switch (type) {
    case trackInstrument:
        addInputPort();
        addOutputPort();
        break;
    case trackAudio:
        addInputPort();
        addOutputPort();
        addInputChannel();
        addOutputChannel();
        break;
    case trackDrum:
        addInputPort();
        addOutputChannel();
        break;
    default:
        break;
    }
    // Cables to a track's terminals go to the sequencer, which is the box in the graph.
    if (seq) {
        setOwner(inputPorts, seq);
        setOwner(outputPorts, seq);
        setOwner(inputChannels, seq);
        setOwner(outputChannels, seq);
    }
}

CMIDIQ* CTrack::automationPort() const {
    if (type == trackAudio || outputPorts.empty()) return firstInputPort();
    return firstOutputPort();
}
