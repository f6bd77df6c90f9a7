// The song inside the sequencer's block of a project: tracks with their lanes, ghost sources, and for
// each arrangement its song tracks, parts, events and timeline. The blocks stand at one level; a block
// that belongs to a track or a part follows it and goes to the last one read.

#include <algorithm>
#include <string>

#include "core/block_in.h"
#include "core/stream.h"
#include "engine/engine.h"
#include "engine/io.h"
#include "seq/seq.h"

namespace {

constexpr uint32_t trackHead = 44;
constexpr uint32_t progHead = 17;
constexpr uint32_t partHead = 27;
constexpr uint32_t markerHead = 36;
constexpr uint32_t timesigHead = 36;
// "tempo" declares 32 bytes and holds 24; readers take the 24 and go on from there.
constexpr uint32_t tempoDeclared = 32;
constexpr uint32_t grooveHead = 28;
constexpr int32_t maxGrooveSteps = 64;
constexpr int32_t maxGrooveGrid = 4 * ticksPerQuarter;
constexpr int32_t optionBytes = 32;
constexpr int32_t placeWords = 8;
constexpr int32_t defaultTracksWidth = 128;
constexpr uint8_t partKindByte = 2;
constexpr uint32_t noGhost = 0xFFFFFFFF;
constexpr float minTempo = 10.0f, maxTempo = 250.0f;

// List codes of an automation path.
constexpr uint8_t listEngine = 0;
constexpr uint8_t listComps = 1;
constexpr uint8_t listGroups = 3;
constexpr uint8_t listNone = 255;
constexpr uint8_t pathInsert = 4;
constexpr uint8_t pathChannel = 6;
constexpr uint8_t pathSend = 7;

// Drum event extras: index, and the value that is not written.
constexpr uint8_t drumVelocity = 0, drumPan = 1, drumPitch = 2;

// Values read from a file, brought into the range the program works in: not a number gives the default,
// so nothing out of range reaches playback.
float floatIn(float value, float low, float high, float fallback) {
    return value == value ? std::clamp(value, low, high) : fallback;
}
int32_t tickIn(int32_t tick) { return std::clamp(tick, 0, maxSongTick); }

void writeU32Block(CStream& stream, const char* tag, uint32_t value) {
    writeBlockHeader(stream, tag, 4);
    stream.writeU32(value);
}

void writePlace(CStream& stream, const char* tag, const int32_t (&place)[placeWords]) {
    writeBlockHeader(stream, tag, 4 * placeWords);
    for (int32_t word : place) stream.writeI32(word);
}

uint32_t loadFlags(const CObject& object) { return object.flags.load(std::memory_order_relaxed); }

uint32_t chainLength(const CEventRec* head) {
    uint32_t count = 0;
    for (; head; head = head->next) ++count;
    return count;
}

// --- Writing -------------------------------------------------------------------------------------

void writeMIDIEvents(CStream& stream, const CEventRec* head) {
    const int32_t block = beginBlock(stream, "mevents");
    stream.writeU32(chainLength(head));
    for (; head; head = head->next) {
        const auto& event = static_cast<const CMIDIEventRec&>(*head);
        stream.writeU32(event.delta);
        stream.writeU8(event.flags);
        stream.writeU32(event.message);
        if (event.isNoteOn()) stream.writeI32(event.duration);
    }
    stream.closeBlock(block);
}

void writeDrumEvents(CStream& stream, const CEventRec* head) {
    const int32_t block = beginBlock(stream, "devents");
    stream.writeU32(chainLength(head));
    for (; head; head = head->next) {
        const auto& event = static_cast<const CDrumEventRec&>(*head);
        stream.writeU32(event.delta);
        stream.writeU8(static_cast<uint8_t>(event.pad));
        stream.writeU8(event.flags);
        stream.writeI32(event.duration);
        const std::pair<uint8_t, float> extras[] = {{drumVelocity, event.velocity}, {drumPan, event.pan}, {drumPitch, event.pitch}};
        const float neutral[] = {1.0f, 0.0f, 1.0f};
        uint8_t count = 0;
        for (const auto& [index, value] : extras) count += value != neutral[index] ? 1 : 0;
        stream.writeU8(count);
        for (const auto& [index, value] : extras) {
            if (value == neutral[index]) continue;
            stream.writeU8(index);
            stream.writeF32(value);
        }
    }
    stream.closeBlock(block);
}

void writeAudioEvents(CStream& stream, const CEventRec* head) {
    const int32_t block = beginBlock(stream, "aevents");
    stream.writeU32(chainLength(head));
    for (; head; head = head->next) {
        const auto& event = static_cast<const CAudioEventRec&>(*head);
        stream.writeU32(event.delta);
        stream.writeU32(event.flags);
        // Samples are referred to by their place in the engine's sample list, which has no entries yet.
        stream.writeI32(-1);
        stream.writeI32(event.lane);
        stream.writeF32(event.gain);
        stream.writeF32(event.spare);
        stream.writeU8(static_cast<uint8_t>(event.mode));
        stream.writeU8(static_cast<uint8_t>(event.reverse));
        stream.writeU16(0);
        for (int32_t word : {event.startFrame, event.endFrame, event.beats, event.pitch}) stream.writeI32(word);
        for (float word : {event.fine, event.fadeInMs, event.fadeInCurve, event.fadeOutMs, event.fadeOutCurve})
            stream.writeF32(word);
        stream.writeI32(event.clipTicks);
        for (int32_t k = 0; k < 3; ++k) stream.writeU32(0);
    }
    stream.closeBlock(block);
}

void writeAutomation(CStream& stream, uint32_t slot, const CEventRec* head) {
    const int32_t block = beginBlock(stream, "amevents");
    stream.writeU32(slot);
    stream.writeU32(chainLength(head));
    for (; head; head = head->next) {
        const auto& point = static_cast<const CAutomationRec&>(*head);
        stream.writeU32(point.delta);
        stream.writeU8(point.flags);
        stream.writeF32(point.value);
        stream.writeF32(point.curve);
        stream.writeU8(static_cast<uint8_t>(point.shape));
    }
    stream.closeBlock(block);
}

void writePart(CStream& stream, const CSeq& seq, const CPart& part, bool inTrack) {
    writeBlockHeader(stream, "part", partHead + static_cast<uint32_t>(part.name.length()));
    stream.writeU8(partKindByte);
    stream.writeU8(static_cast<uint8_t>(part.subKind));
    stream.writeU8(inTrack ? 1 : 0);
    const int32_t ghost = part.ghostSource ? seq.ghostSources.indexOf(part.ghostSource) : -1;
    stream.writeU32(ghost < 0 ? noGhost : static_cast<uint32_t>(ghost));
    stream.writeI32(part.start);
    stream.writeI32(part.offset);
    stream.writeI32(part.length);
    stream.writeU32(loadFlags(part));
    writeString(stream, part.name);
    if (part.ghostSource) return;

    writeU32Block(stream, "partCol", static_cast<uint32_t>(part.color));
    if (part.subKind == partMIDI) writeMIDIEvents(stream, part.events);
    if (part.subKind == partAudio) {
        writeU32Block(stream, "achs", static_cast<uint32_t>(static_cast<const CAudioPart&>(part).audioChannels));
        writeAudioEvents(stream, part.events);
    }
    if (part.subKind == partDrum) writeDrumEvents(stream, part.events);
    for (uint32_t slot = 0; slot < automationSlots; ++slot)
        if (part.automation[slot]) writeAutomation(stream, slot, part.automation[slot]);
    if (part.subKind == partAudio && static_cast<const CAudioPart&>(part).multiClip) {
        writeBlockHeader(stream, "multiclip", 1);
        stream.writeU8(1);
    }
}

// List code and index of a component in the engine's lists.
std::pair<uint8_t, uint32_t> placeOf(const CQV* engine, const CComp* comp) {
    if (!engine || !comp) return {listNone, 0};
    if (comp == engine) return {listEngine, 0};
    if (const int32_t at = engine->comps.indexOf(comp); at >= 0) return {listComps, static_cast<uint32_t>(at)};
    if (const int32_t at = engine->groupChannels.indexOf(comp); at >= 0) return {listGroups, static_cast<uint32_t>(at)};
    return {listNone, 0};
}

uint32_t sendIndex(const COutputChannel& channel, const CSend* send) {
    for (int32_t k = 0; k < COutputChannel::maxSends; ++k)
        if (channel.sends[k] == send) return static_cast<uint32_t>(k);
    return 0;
}

uint32_t channelIndex(const COutputChannel* channel) {
    return channel && channel->owner ? static_cast<uint32_t>(std::max(channel->owner->outputChannels.indexOf(channel), 0)) : 0;
}

// Targets are components (kind 1), output channels (kind 16, subKind 2) or sends (subKind 3).
AutomationPath pathOf(const CQV* engine, const void* target) {
    AutomationPath path;
    const auto* object = static_cast<const CObject*>(target);
    if (!object) return path;
    const auto set = [&path](int k, uint8_t list, uint32_t index) {
        path.list[k] = list;
        path.index[k] = index;
    };
    if (object->kind == 1) {
        const auto* comp = static_cast<const CComp*>(object);
        if (const COutputChannel* channel = comp->parentChannel) {
            const auto [list, index] = placeOf(engine, channel->owner);
            set(0, pathInsert, static_cast<uint32_t>(std::max(channel->inserts.indexOf(comp), 0)));
            set(1, 0, channelIndex(channel));
            set(2, list, index);
        } else {
            const auto [list, index] = placeOf(engine, comp);
            set(0, list, index);
        }
    } else if (object->kind == 16 && object->subKind == 2) {
        const auto* channel = static_cast<const COutputChannel*>(object);
        const auto [list, index] = placeOf(engine, channel->owner);
        set(0, pathChannel, channelIndex(channel));
        set(1, list, index);
    } else if (object->subKind == 3) {
        const auto* send = static_cast<const CSend*>(object);
        const COutputChannel* channel = send->channel;
        const auto [list, index] = placeOf(engine, channel ? channel->owner : nullptr);
        set(0, pathSend, channel ? sendIndex(*channel, send) : 0);
        set(1, 0, channelIndex(channel));
        set(2, list, index);
    }
    return path;
}

void writeSubTrack(CStream& stream, const CQV* engine, const CSubTrack& sub) {
    const int32_t block = beginBlock(stream, "sub");
    writeString(stream, sub.name);
    stream.writeU8(static_cast<uint8_t>(loadFlags(sub)));
    stream.writeU8(sub.visible);
    stream.writeI32(sub.height);
    stream.writeI32(sub.laneKind);
    stream.writeI32(sub.controller);
    if (sub.laneKind == laneAutomation) {
        stream.writeU8(static_cast<uint8_t>(sub.automationType));
        stream.writeI32(sub.slot);
        const AutomationPath path = sub.automationType == automateParameter ? pathOf(engine, sub.target) : AutomationPath{};
        for (int k = 0; k < 4; ++k) {
            stream.writeU8(path.list[k]);
            stream.writeU32(path.index[k]);
        }
    }
    stream.closeBlock(block);
    writeBlockHeader(stream, "subex", 8);
    stream.writeU8(sub.disabled);
    for (int32_t k = 0; k < 3; ++k) stream.writeU8(0);
    stream.writeU32(0);
}

void writeTrack(CStream& stream, const CSeq& seq, const CTrack& track) {
    writeBlockHeader(stream, "track", trackHead + static_cast<uint32_t>(track.name.length()));
    stream.writeI32(track.type);
    stream.writeU32(loadFlags(track));
    writeString(stream, track.name);
    stream.writeI32(track.height);
    stream.writeI32(track.expandedHeight);
    stream.writeI32(0);  // top row of the expanded view: the arrange window's
    stream.writeI32(track.parentFolder ? seq.tracks.indexOf(track.parentFolder) : -1);
    stream.writeU8((loadFlags(track) & trackflag::expanded) ? 1 : 0);
    stream.writeU8(static_cast<uint8_t>(track.channel));
    stream.writeU8(track.monitor);
    stream.writeU8(track.recordChannels);
    stream.writeI32(track.noteHeight);
    stream.writeI32(track.transpose);
    stream.writeU32(0);

    writeU32Block(stream, "trackCol", static_cast<uint32_t>(track.color));
    writeU32Block(stream, "trackOutCh", static_cast<uint32_t>(track.outputChannelHint));
    writeU32Block(stream, "trackInSens", static_cast<uint32_t>(track.inputSens));
    writePlace(stream, "tracked", track.editorPlace);
    const int32_t steps = std::clamp(track.grooveSteps, 0, maxGrooveSteps);
    writeBlockHeader(stream, "trackGroove", grooveHead + 4 * static_cast<uint32_t>(steps));
    stream.writeF32(track.grooveSwing);
    stream.writeF32(track.grooveAmount);
    stream.writeU32(0);
    stream.writeU32(0);
    stream.writeF32(track.grooveStrength);
    stream.writeI32(track.grooveGrid);
    stream.writeI32(steps);
    for (int32_t k = 0; k < steps; ++k) stream.writeF32(track.grooveValues[k]);
    for (const CSubTrack* sub : track.subTracks) writeSubTrack(stream, seq.engine, *sub);
}

void writeTimeline(CStream& stream, const CSeqProg& prog) {
    for (const CMarkerPart* marker : prog.markers) {
        writeBlockHeader(stream, "marker", markerHead + static_cast<uint32_t>(marker->name.length()));
        writeString(stream, marker->name);
        stream.writeU8(marker->reserved[0]);
        stream.writeU8(marker->reserved[1]);
        stream.writeU16(0);
        stream.writeI32(marker->start);
        stream.writeI32(marker->length);
        stream.writeU16(4);
        stream.writeU16(4);
        stream.writeF32(120.0f);
        for (int32_t k = 0; k < 3; ++k) stream.writeU32(0);
    }
    if (!prog.markers.empty()) {
        writeBlockHeader(stream, "amarker", 4);
        stream.writeI32(prog.nextMarker ? prog.markers.indexOf(prog.nextMarker) : -1);
    }
    for (const CTimesigPart* signature : prog.signatures) {
        writeBlockHeader(stream, "timesig", timesigHead + static_cast<uint32_t>(signature->name.length()));
        writeString(stream, signature->name);
        stream.writeI32(signature->start);
        stream.writeI32(signature->length);
        stream.writeI32(signature->numerator);
        stream.writeI32(signature->denominator);
        stream.writeF32(-1.0f);
        for (int32_t k = 0; k < 3; ++k) stream.writeU32(0);
    }
    for (const CTempoPart* tempo : prog.tempos) {
        writeBlockHeader(stream, "tempo", tempoDeclared);
        stream.writeI32(tempo->start);
        stream.writeI32(tempo->length);
        stream.writeF32(tempo->tempo);
        for (int32_t k = 0; k < 3; ++k) stream.writeU32(0);
    }
}

void writeProg(CStream& stream, const CSeq& seq, const CSeqProg& prog) {
    writeBlockHeader(stream, "prog", progHead + static_cast<uint32_t>(prog.name.length()));
    stream.writeF32(static_cast<float>(prog.position.load(std::memory_order_relaxed)));
    stream.writeU8(prog.loopOn);
    stream.writeI32(prog.leftLocator);
    stream.writeI32(prog.rightLocator);
    writeString(stream, prog.name);
    for (const CSongTrack* songTrack : prog.songTracks) {
        writeBlockHeader(stream, "ptrack", 1);
        stream.writeU8(static_cast<uint8_t>(loadFlags(*songTrack)));
        for (const CPart* part : songTrack->parts) writePart(stream, seq, *part, true);
    }
    writeTimeline(stream, prog);
}

// --- Reading -------------------------------------------------------------------------------------

CPart* makePart(int32_t subKind) {
    switch (subKind) {
    case partMIDI: return new CMIDIPart();
    case partAudio: return new CAudioPart();
    case partDrum: return new CDrumPart();
    default: return nullptr;
    }
}

// Appends records to the part's own chain, keeping each delta as read as long as the chain stays within
// maxSongTick of its head; later records are moved back to that bound.
class ChainBuilder {
public:
    explicit ChainBuilder(CEventRec*& head) : link_(&head) {
        for (; *link_; link_ = &(*link_)->next) length_ += (*link_)->delta;
    }
    void add(CEventRec* event) {
        event->delta = static_cast<uint32_t>(std::min<int64_t>(event->delta, std::max<int64_t>(maxSongTick - length_, 0)));
        length_ += event->delta;
        *link_ = event;
        link_ = &event->next;
    }

private:
    CEventRec** link_;
    int64_t length_ = 0;
};

// Reads `count` records with `readOne`, which returns null at the first damaged one; says how many of
// how many were read when the block ends early.
template <class ReadOne>
std::string readRecords(BlockIn& in, CEventRec*& head, ReadOne readOne) {
    uint32_t count = 0;
    if (!in.u32(count)) return "its event list is damaged";
    ChainBuilder chain(head);
    for (uint32_t k = 0; k < count; ++k) {
        CEventRec* event = readOne();
        if (!event) return std::to_string(k) + " of its " + std::to_string(count) + " events read, the rest lost";
        chain.add(event);
    }
    return {};
}

CEventRec* readMIDIEvent(BlockIn& in) {
    auto event = std::make_unique<CMIDIEventRec>();
    if (!in.u32(event->delta) || !in.u8(event->flags) || !in.u32(event->message)) return nullptr;
    if (event->isNoteOn() && !in.i32(event->duration)) return nullptr;
    event->duration = tickIn(event->duration);
    return event.release();
}

CEventRec* readDrumEvent(BlockIn& in) {
    auto event = std::make_unique<CDrumEventRec>();
    uint8_t extras = 0;
    if (!in.u32(event->delta) || !in.u8To(event->pad) || !in.u8(event->flags) || !in.i32(event->duration) || !in.u8(extras))
        return nullptr;
    event->duration = tickIn(event->duration);
    for (uint8_t k = 0; k < extras; ++k) {
        uint8_t index = 0;
        float value = 0.0f;
        if (!in.u8(index) || !in.f32(value)) return nullptr;
        if (value != value) continue;
        if (index == drumVelocity) event->velocity = std::clamp(value, 0.0f, 1.0f);
        else if (index == drumPan) event->pan = std::clamp(value, -1.0f, 1.0f);
        else if (index == drumPitch) event->pitch = std::clamp(value, 0.25f, 4.0f);
    }
    return event.release();
}

CEventRec* readAudioEvent(BlockIn& in) {
    auto event = std::make_unique<CAudioEventRec>();
    uint32_t flags = 0;
    int32_t sample = -1;
    if (!in.u32(event->delta) || !in.u32(flags) || !in.i32(sample) || !in.i32(event->lane) || !in.f32(event->gain) ||
        !in.f32(event->spare) || !in.u8To(event->mode) || !in.u8To(event->reverse) || !in.skip(2))
        return nullptr;
    event->flags = static_cast<uint8_t>(flags);
    for (int32_t* word : {&event->startFrame, &event->endFrame, &event->beats, &event->pitch})
        if (!in.i32(*word)) return nullptr;
    for (float* word : {&event->fine, &event->fadeInMs, &event->fadeInCurve, &event->fadeOutMs, &event->fadeOutCurve})
        if (!in.f32(*word)) return nullptr;
    if (!in.i32(event->clipTicks) || !in.skip(12)) return nullptr;
    event->gain = floatIn(event->gain, 0.0f, 16.0f, 1.0f);
    event->spare = floatIn(event->spare, -1e6f, 1e6f, 0.0f);
    event->mode = std::clamp(event->mode, 0, 1);
    event->reverse = event->reverse ? 1 : 0;
    event->startFrame = std::max(event->startFrame, 0);
    event->endFrame = std::max(event->endFrame, event->startFrame);
    event->beats = tickIn(event->beats);
    event->clipTicks = tickIn(event->clipTicks);
    event->pitch = std::clamp(event->pitch, -96, 96);
    event->fine = floatIn(event->fine, -96.0f, 96.0f, 0.0f);
    event->lane = std::max(event->lane, -1);
    event->fadeInMs = floatIn(event->fadeInMs, 0.0f, 3.6e6f, 0.0f);
    event->fadeOutMs = floatIn(event->fadeOutMs, 0.0f, 3.6e6f, 0.0f);
    event->fadeInCurve = floatIn(event->fadeInCurve, -1.0f, 1.0f, 0.0f);
    event->fadeOutCurve = floatIn(event->fadeOutCurve, -1.0f, 1.0f, 0.0f);
    return event.release();
}

CEventRec* readAutomationPoint(BlockIn& in) {
    auto point = std::make_unique<CAutomationRec>();
    if (!in.u32(point->delta) || !in.u8(point->flags) || !in.f32(point->value) || !in.f32(point->curve) ||
        !in.u8To(point->shape))
        return nullptr;
    point->value = floatIn(point->value, 0.0f, 1.0f, 0.0f);
    point->curve = floatIn(point->curve, -1.0f, 1.0f, 0.0f);
    point->shape = std::min(point->shape, 1);
    return point.release();
}

}  // namespace

void CSeq::save(CStream& stream) {
    writeU32Block(stream, "tracks-width",
                  static_cast<uint32_t>(engine ? engine->getOption("tracks-width", defaultTracksWidth) : defaultTracksWidth));
    writeBlockHeader(stream, "options", optionBytes);
    stream.write(options, optionBytes);
    writeU32Block(stream, "sync", static_cast<uint32_t>(sync));
    writeU32Block(stream, "mxv", static_cast<uint32_t>(mixerView));
    writeBlockHeader(stream, "snap", 8);
    for (uint8_t byte : {snap.enabled, snap.triplet, snap.dotted, snap.relative}) stream.writeU8(byte);
    stream.writeI32(snap.gridType >= 0 && snap.gridType <= 6 ? snap.gridType : 3);
    for (const CTrack* track : tracks) writeTrack(stream, *this, *track);
    for (const CPart* source : ghostSources) writePart(stream, *this, *source, false);
    writeU32Block(stream, "progi", static_cast<uint32_t>(program));
    for (const CObject* object : programs) writeProg(stream, *this, *static_cast<const CSeqProg*>(object));
}

void CSeq::load(CStream& stream, int32_t end) {
    programs.deleteAll();
    tracks.deleteAll();
    ghostSources.deleteAll();
    inputPorts.deleteAll();
    outputPorts.deleteAll();
    inputChannels.deleteAll();
    outputChannels.deleteAll();
    loadedTargets_.clear();
    loadDamage.clear();
    program = 0;

    std::vector<int32_t> parentIndices;
    CTrack* track = nullptr;
    CSeqProg* prog = nullptr;
    int32_t songTrackIndex = -1;
    CSongTrack* songTrack = nullptr;
    CPart* part = nullptr;

    const auto partLabel = [](const CPart* p) { return "part '" + std::string(p->name.c_str()) + "'"; };
    const auto lost = [this](const std::string& what, const std::string& how) {
        if (!how.empty()) loadDamage.push_back(what + ": " + how);
    };
    CBlockReader blocks(stream, end);
    while (blocks.next()) {
        BlockIn in(stream, blocks.blockEnd());
        if (blocks.is("options")) {
            in.bytes(options, optionBytes);
        } else if (blocks.is("sync")) {
            in.i32(sync);
        } else if (blocks.is("mxv")) {
            in.i32(mixerView);
        } else if (blocks.is("snap")) {
            uint8_t bytes[4] = {snap.enabled, snap.triplet, snap.dotted, snap.relative};
            int32_t grid = -1;
            if (in.bytes(bytes, 4)) {
                snap.enabled = bytes[0];
                snap.triplet = bytes[1];
                snap.dotted = bytes[2];
                snap.relative = bytes[3];
            }
            if (in.i32(grid) && grid >= 0 && grid <= 6) snap.gridType = grid;
        } else if (blocks.is("track")) {
            int32_t type = 0;
            uint32_t flagBits = 0;
            if (!in.i32(type) || !in.u32(flagBits)) {
                track = nullptr;
                loadDamage.push_back("a track is dropped: its block is damaged");
            } else {
                track = addTrack(*this, type, nullptr, -1);
                track->subTracks.deleteAll();
                track->flags.store(flagBits & ~trackflag::expanded, std::memory_order_relaxed);
                int32_t scrollTop = 0, parent = -1, noteHeight = CTrack::defaultNoteHeight;
                uint8_t expanded = 0, channel = 0, recordChannels = 2;
                in.string(track->name);
                in.i32(track->height);
                in.i32(track->expandedHeight);
                in.i32(scrollTop);
                in.i32(parent);
                in.u8(expanded);
                if (in.u8(channel)) track->channel = static_cast<int8_t>(channel);
                in.u8(track->monitor);
                in.u8(recordChannels);
                track->recordChannels = recordChannels == 1 ? 1 : 2;
                in.i32(noteHeight);
                track->noteHeight = noteHeight > 0 ? noteHeight : CTrack::defaultNoteHeight;
                in.i32(track->transpose);
                track->transpose = std::clamp(track->transpose, -127, 127);
                track->channel = static_cast<int16_t>(std::clamp<int32_t>(track->channel, -1, 15));
                if (expanded) track->flags.fetch_or(trackflag::expanded, std::memory_order_relaxed);
                parentIndices.push_back(parent);
                if (!in.ok()) lost("track '" + std::string(track->name.c_str()) + "'", "its block is damaged");
            }
        } else if (track && blocks.is("trackCol")) {
            in.i32(track->color);
        } else if (track && blocks.is("trackOutCh")) {
            in.i32(track->outputChannelHint);
        } else if (track && blocks.is("trackInSens")) {
            in.i32(track->inputSens);
            track->inputSens = std::clamp(track->inputSens, 0, 100);
        } else if (track && blocks.is("tracked")) {
            for (int32_t& word : track->editorPlace) in.i32(word);
        } else if (track && blocks.is("trackGroove")) {
            uint32_t zero = 0;
            int32_t steps = 0;
            in.f32(track->grooveSwing);
            in.f32(track->grooveAmount);
            in.u32(zero);
            in.u32(zero);
            in.f32(track->grooveStrength);
            in.i32(track->grooveGrid);
            if (in.i32(steps)) track->grooveSteps = steps;
            // Playback divides by steps x grid and moves events by up to a step's width either way.
            if (track->grooveSteps < 1 || track->grooveSteps > maxGrooveSteps) track->grooveSteps = 2;
            if (track->grooveGrid < 1 || track->grooveGrid > maxGrooveGrid) track->grooveGrid = 240;
            track->grooveStrength = floatIn(track->grooveStrength, 0.0f, 1.0f, 0.0f);
            for (int32_t k = 0; k < track->grooveSteps; ++k) {
                in.f32(track->grooveValues[k]);
                track->grooveValues[k] = floatIn(track->grooveValues[k], -1.0f, 1.0f, 0.0f);
            }
        } else if (track && blocks.is("sub")) {
            auto sub = std::make_unique<CSubTrack>(0);
            uint8_t flagByte = 0, automationType = 0;
            AutomationPath path;
            in.string(sub->name);
            if (in.u8(flagByte)) sub->flags.store(flagByte, std::memory_order_relaxed);
            in.u8(sub->visible);
            in.i32(sub->height);
            in.i32(sub->laneKind);
            in.i32(sub->controller);
            if (sub->laneKind == laneAutomation) {
                if (in.u8(automationType)) sub->automationType = automationType;
                in.i32(sub->slot);
                for (int k = 0; k < 4; ++k) {
                    in.u8(path.list[k]);
                    in.u32(path.index[k]);
                }
                if (in.ok() && sub->automationType == automateParameter) loadedTargets_.emplace_back(sub.get(), path);
            }
            track->subTracks.add(sub.release());
        } else if (track && blocks.is("subex")) {
            if (CSubTrack* sub = track->subTracks.getAt(track->subTracks.count() - 1)) in.u8(sub->disabled);
        } else if (blocks.is("progi")) {
            in.i32(program);
        } else if (blocks.is("prog")) {
            prog = addProg();
            float position = 0.0f;
            // A song position is a tick on the timeline: not a number, or off it, starts at 0.
            if (in.f32(position) && position >= 0.0f && position < static_cast<float>(maxSongTick))
                prog->position.store(position, std::memory_order_relaxed);
            in.u8(prog->loopOn);
            in.i32(prog->leftLocator);
            in.i32(prog->rightLocator);
            prog->leftLocator = tickIn(prog->leftLocator);
            prog->rightLocator = tickIn(prog->rightLocator);
            in.string(prog->name);
            songTrackIndex = -1;
            songTrack = nullptr;
            part = nullptr;
        } else if (prog && blocks.is("ptrack")) {
            songTrack = prog->songTracks.getAt(++songTrackIndex);
            uint8_t flagByte = 0;
            if (songTrack && in.u8(flagByte)) songTrack->flags.store(flagByte, std::memory_order_relaxed);
            part = nullptr;
        } else if (blocks.is("part")) {
            uint8_t kindByte = 0, subKind = 0, inTrack = 0;
            uint32_t ghost = noGhost, flagBits = 0;
            in.u8(kindByte);
            in.u8(subKind);
            in.u8(inTrack);
            in.u32(ghost);
            part = in.ok() ? makePart(subKind) : nullptr;
            CSongTrack* home = inTrack ? songTrack : nullptr;
            if (part && inTrack && !home) {
                delete part;
                part = nullptr;
            }
            if (!part) loadDamage.push_back("a part is dropped: its block is damaged or names no track");
            if (part) {
                in.i32(part->start);
                in.i32(part->offset);
                in.i32(part->length);
                part->start = tickIn(part->start);
                part->offset = std::clamp(part->offset, -maxSongTick, maxSongTick);
                part->length = tickIn(part->length);
                if (in.u32(flagBits)) part->flags.store(flagBits, std::memory_order_relaxed);
                in.string(part->name);
                // Only a source that holds its own chains can lend them.
                CPart* source = ghost != noGhost ? ghostSources.getAt(static_cast<int32_t>(std::min<uint32_t>(ghost, 0x7FFFFFFF))) : nullptr;
                part->ghostSource = source && !source->ghostSource ? source : nullptr;
                if (!in.ok()) lost(partLabel(part), "its block is damaged");
                if (home) {
                    part->songTrack = home;
                    home->parts.add(part);
                } else {
                    ghostSources.add(part);
                }
                // Blocks of content that follow a ghost have no chain of its own to go to.
                if (part->ghostSource) part = nullptr;
            }
        } else if (part && blocks.is("partCol")) {
            in.i32(part->color);
        } else if (part && part->subKind == partMIDI && blocks.is("mevents")) {
            lost(partLabel(part), readRecords(in, part->events, [&in] { return readMIDIEvent(in); }));
        } else if (part && part->subKind == partAudio && blocks.is("achs")) {
            in.i32(static_cast<CAudioPart*>(part)->audioChannels);
        } else if (part && part->subKind == partAudio && blocks.is("aevents")) {
            lost(partLabel(part), readRecords(in, part->events, [&in] { return readAudioEvent(in); }));
        } else if (part && part->subKind == partDrum && blocks.is("devents")) {
            lost(partLabel(part), readRecords(in, part->events, [&in] { return readDrumEvent(in); }));
        } else if (part && blocks.is("amevents")) {
            uint32_t slot = automationSlots;
            if (in.u32(slot) && slot < static_cast<uint32_t>(automationSlots))
                lost(partLabel(part), readRecords(in, part->automation[slot], [&in] { return readAutomationPoint(in); }));
        } else if (part && part->subKind == partAudio && blocks.is("multiclip")) {
            uint8_t on = 0;
            if (in.u8(on)) static_cast<CAudioPart*>(part)->multiClip = on;
        } else if (prog && blocks.is("marker")) {
            auto marker = std::make_unique<CMarkerPart>();
            in.string(marker->name);
            in.u8(marker->reserved[0]);
            in.u8(marker->reserved[1]);
            in.skip(2);
            in.i32(marker->start);
            in.i32(marker->length);
            marker->start = tickIn(marker->start);
            marker->length = tickIn(marker->length);
            prog->markers.add(marker.release());
        } else if (prog && blocks.is("amarker")) {
            int32_t next = -1;
            if (in.i32(next) && options[seqoption::markerTrack]) prog->nextMarker = prog->markers.getAt(next);
        } else if (prog && blocks.is("timesig")) {
            auto signature = std::make_unique<CTimesigPart>();
            in.string(signature->name);
            in.i32(signature->start);
            in.i32(signature->length);
            in.i32(signature->numerator);
            in.i32(signature->denominator);
            signature->start = tickIn(signature->start);
            signature->length = tickIn(signature->length);
            const int32_t at = insertIndexFor(prog->signatures, signature->start);
            prog->signatures.insert(at, signature.release());
        } else if (prog && blocks.is("tempo")) {
            auto tempo = std::make_unique<CTempoPart>();
            uint32_t zero = 0;
            if (in.i32(tempo->start) && in.i32(tempo->length) && in.f32(tempo->tempo)) {
                tempo->start = tickIn(tempo->start);
                tempo->length = tickIn(tempo->length);
                tempo->tempo = floatIn(tempo->tempo, minTempo, maxTempo, 120.0f);
                for (int32_t k = 0; k < 3; ++k) in.u32(zero);
                prog->tempos.add(tempo.release());
            }
            // Fixed fields, then on from there: the declared size is longer than the block.
            continue;
        }
        blocks.skip();
    }

    if (programs.empty()) addProg();
    program = std::clamp(program, 0, programs.count() - 1);
    // A folder track is a parent only when it is one and is not the track itself.
    for (int32_t k = 0; k < tracks.count() && k < static_cast<int32_t>(parentIndices.size()); ++k) {
        CTrack* parent = tracks.getAt(parentIndices[static_cast<size_t>(k)]);
        CTrack* child = tracks.getAt(k);
        child->parentFolder = parent && parent != child && parent->type == trackFolder ? parent : nullptr;
    }
}

void CSeq::resolveAutomationTargets() {
    const auto compAt = [this](uint8_t list, uint32_t index) -> CComp* {
        if (!engine || index > 0x7FFFFFFF) return nullptr;
        const auto at = static_cast<int32_t>(index);
        if (list == listEngine) return engine;
        if (list == listComps) return engine->comps.getAt(at);
        if (list == listGroups) return engine->groupChannels.getAt(at);
        return nullptr;
    };
    const auto channelAt = [](CComp* comp, uint32_t index) -> COutputChannel* {
        return comp && index <= 0x7FFFFFFF ? comp->outputChannels.getAt(static_cast<int32_t>(index)) : nullptr;
    };
    for (auto& [sub, path] : loadedTargets_) {
        void* target = nullptr;
        switch (path.list[0]) {
        case pathInsert:
            if (COutputChannel* channel = channelAt(compAt(path.list[2], path.index[2]), path.index[1]))
                target = channel->inserts.getAt(static_cast<int32_t>(std::min<uint32_t>(path.index[0], 0x7FFFFFFF)));
            break;
        case pathChannel:
            target = channelAt(compAt(path.list[1], path.index[1]), path.index[0]);
            break;
        case pathSend:
            if (COutputChannel* channel = channelAt(compAt(path.list[2], path.index[2]), path.index[1]))
                target = path.index[0] < static_cast<uint32_t>(COutputChannel::maxSends) ? channel->sends[path.index[0]] : nullptr;
            break;
        default:
            target = compAt(path.list[0], path.index[0]);
            break;
        }
        sub->target = target;
    }
    loadedTargets_.clear();
}
