// The song model: event chains, ghosts and duplicates, tracks with their terminals, song tracks and
// wiring, arrangements, and the undo path that brings new tracks into a running graph.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "engine/engine.h"
#include "engine/io.h"
#include "engine/undo.h"
#include "seq/model_dump.h"
#include "seq/seq.h"

namespace {

// An engine with the device components new tracks are wired to, and one sequencer.
struct Project {
    Project() : engine(EngineOptions{false, 1}) {
        registerSequencerTypes();
        midiIn = add(compMIDIIn);
        audioIn = add(compAudioIn);
        audioOut = add(compAudioOut);
        seq = dynamic_cast<CSeq*>(add(compSequencer));
    }
    CComp* add(int32_t type) {
        CComp* comp = createComp(&engine, static_cast<uint8_t>(type));
        comp->createPorts();
        engine.addComp(comp);
        return comp;
    }
    // Steps are applied at the end of the cycle that follows.
    void apply(CUndo* step) { engine.postUndo(step, false); engine.runCycle(256); }
    void undo() { engine.undo(); engine.runCycle(256); }
    void redo() { engine.redo(); engine.runCycle(256); }
    CUndo* addTrackStep(int32_t type, int32_t index = -1) {
        CUndo* step = beginUndo(engine, addTrackTitle(type), seq, 0);
        addTrack(*seq, type, step, index);
        return step;
    }

    CQV engine;
    CComp *midiIn, *audioIn, *audioOut;
    CSeq* seq;
};

// A note whose key tells it apart from the others of a chain.
CMIDIEventRec* note(uint8_t key) {
    auto* event = new CMIDIEventRec();
    event->message = packMIDI(0x90, key, 100);
    return event;
}

struct Placed {
    uint8_t key;
    uint32_t delta;
    friend bool operator==(const Placed&, const Placed&) = default;
};

std::vector<Placed> chainOf(const CEventRec* head) {
    std::vector<Placed> placed;
    for (; head; head = head->next)
        placed.push_back({static_cast<uint8_t>(static_cast<const CMIDIEventRec*>(head)->message >> 8), head->delta});
    return placed;
}

std::string namesOf(const TList<CTrack>& tracks) {
    std::string names;
    for (const CTrack* track : tracks) names += std::string(track->name.c_str()) + " ";
    return names;
}

// Every arrangement holds one song track per track, in track order, pointing back at both; the
// sequencer's terminal lists hold exactly the tracks' terminals, in track order, owned by it.
template <class T>
void expectTerminalsInTrackOrder(const CSeq& seq, const TList<T>& list, TList<T> CComp::*view) {
    std::vector<const T*> expected;
    for (const CTrack* track : seq.tracks)
        for (const T* terminal : track->*view) expected.push_back(terminal);
    EXPECT_EQ(std::vector<const T*>(list.begin(), list.end()), expected);
    for (const T* terminal : list) EXPECT_EQ(terminal->owner, &seq);
}

void expectModelInTrackOrder(const CSeq& seq) {
    for (int32_t p = 0; p < seq.programs.count(); ++p) {
        const CSeqProg* prog = seq.prog(p);
        ASSERT_EQ(prog->songTracks.count(), seq.tracks.count()) << "arrangement " << p;
        for (int32_t t = 0; t < seq.tracks.count(); ++t) {
            EXPECT_EQ(prog->songTracks.getAt(t)->track, seq.tracks.getAt(t)) << "arrangement " << p << " row " << t;
            EXPECT_EQ(prog->songTracks.getAt(t)->prog, prog);
        }
    }
    expectTerminalsInTrackOrder(seq, seq.inputPorts, &CComp::inputPorts);
    expectTerminalsInTrackOrder(seq, seq.outputPorts, &CComp::outputPorts);
    expectTerminalsInTrackOrder(seq, seq.inputChannels, &CComp::inputChannels);
    expectTerminalsInTrackOrder(seq, seq.outputChannels, &CComp::outputChannels);
}

TEST(PartChain, InsertKeepsOrderAndDeltasAndPutsEqualTicksBehind) {
    struct Row {
        std::vector<int32_t> existing;  // absolute ticks of keys 1, 2, ...
        int32_t tick;                   // the new event, key 99
        std::vector<Placed> expected;
    };
    const Row rows[] = {
        {{}, 70, {{99, 70}}},
        {{100, 200}, 40, {{99, 40}, {1, 60}, {2, 100}}},
        {{0, 10}, 0, {{1, 0}, {99, 0}, {2, 10}}},
        {{100, 100, 300}, 100, {{1, 100}, {2, 0}, {99, 0}, {3, 200}}},
        {{100, 200}, 130, {{1, 100}, {99, 30}, {2, 70}}},
        {{100, 200}, 500, {{1, 100}, {2, 100}, {99, 300}}},
    };
    for (const Row& row : rows) {
        CMIDIPart part;
        for (size_t i = 0; i < row.existing.size(); ++i) insertEvent(part, row.existing[i], note(static_cast<uint8_t>(i + 1)));
        insertEvent(part, row.tick, note(99));
        EXPECT_EQ(chainOf(part.getEvents()), row.expected) << "at tick " << row.tick;
    }
}

TEST(PartLength, ZeroPlaysAsOneQuarter) {
    CSeq seq(nullptr);
    for (auto [length, expected] : {std::pair{0, 960}, {1, 1}, {7680, 7680}}) {
        CMIDIPart part;
        part.start = 480;
        part.length = length;
        EXPECT_EQ(partPlayLength(seq, part), expected) << "length " << length;
        EXPECT_EQ(part.end(), 480 + expected);
    }
}

// A plain part with two notes and one automation point, as the tests below duplicate it.
std::unique_ptr<CPart> filledPart() {
    auto part = std::make_unique<CMIDIPart>();
    part->name = "verse";
    part->start = 3840;
    part->offset = 120;
    part->length = 1920;
    insertEvent(*part, 0, note(60));
    insertEvent(*part, 480, note(64));
    auto* point = new CAutomationRec();
    point->value = 0.5f;
    part->automation[3] = point;
    return part;
}

TEST(GhostDuplicate, GhostsShareOneHiddenSourceAndUnghostedCopiesStandAlone) {
    CSeq seq(nullptr);
    std::unique_ptr<CPart> part = filledPart();
    CEventRec* const head = part->events;
    CEventRec* const point = part->automation[3];
    std::unique_ptr<CPart> duplicate(makeGhost(seq, *part, true));

    ASSERT_EQ(seq.ghostSources.count(), 1);
    CPart* source = seq.ghostSources.getAt(0);
    EXPECT_EQ(source->ghostSource, nullptr) << "a source is never itself a ghost";
    EXPECT_STREQ(source->name.c_str(), "verse");
    // The content moved, it was not copied: the source holds the very chains the part had.
    EXPECT_EQ(source->events, head);
    EXPECT_EQ(source->automation[3], point);
    EXPECT_EQ(part->events, nullptr);
    EXPECT_EQ(part->automation[3], nullptr);
    for (const CPart* ghost : {part.get(), duplicate.get()}) {
        EXPECT_EQ(ghost->ghostSource, source);
        EXPECT_EQ(ghost->getEvents(), head);
        EXPECT_EQ(ghost->getAutomation(3), point);
        EXPECT_EQ(std::tuple(ghost->start, ghost->offset, ghost->length), std::tuple(3840, 120, 1920));
    }

    std::unique_ptr<CPart> second(makeGhost(seq, *duplicate, true));
    EXPECT_EQ(seq.ghostSources.count(), 1) << "a ghost of a ghost shares the one source";
    EXPECT_EQ(second->ghostSource, source);
    insertEvent(*second, 240, note(2));
    EXPECT_EQ(chainOf(source->events), (std::vector<Placed>{{60, 0}, {2, 240}, {64, 240}})) << "edits go to the source";
    EXPECT_EQ(second->events, nullptr);

    // An unghosted copy of a ghost: its own chains, placed where the ghost lies.
    second->start = 9600;
    second->length = 960;
    second->name = "moved";
    second->flags = partflag::muted;
    std::unique_ptr<CPart> copy(makeGhost(seq, *second, false));
    EXPECT_EQ(copy->ghostSource, nullptr);
    EXPECT_EQ(std::tuple(copy->start, copy->length, copy->flags.load()), std::tuple(9600, 960, partflag::muted));
    EXPECT_STREQ(copy->name.c_str(), "moved");
    EXPECT_EQ(chainOf(copy->events), chainOf(source->events));
    EXPECT_NE(copy->events, source->events);
    ASSERT_NE(copy->automation[3], nullptr);
    EXPECT_NE(copy->automation[3], source->automation[3]);
    EXPECT_EQ(seq.ghostSources.count(), 1);
}

TEST(GhostDuplicate, AudioPartsGhostOnlyWithSeveralClips) {
    for (auto [multiClip, asGhost, expectGhost] : {std::tuple{0, true, false}, {1, true, true}, {1, false, false}}) {
        CSeq seq(nullptr);
        CAudioPart part;
        part.multiClip = multiClip;
        part.events = new CAudioEventRec();
        std::unique_ptr<CPart> duplicate(makeGhost(seq, part, asGhost));
        EXPECT_EQ(duplicate->isGhost(), expectGhost) << "multiClip " << multiClip << " asGhost " << asGhost;
        EXPECT_EQ(seq.ghostSources.count(), expectGhost ? 1 : 0);
        EXPECT_EQ(static_cast<CAudioPart&>(*duplicate).multiClip, multiClip);
    }
}

// Each way of duplicating, then freeing one side first: the survivor's chains stay whole (a chain freed
// twice or read after its free shows under AddressSanitizer).
TEST(GhostDuplicate, FreeingOneSideNeverFreesTheOthersChains) {
    for (bool asGhost : {false, true}) {
        for (bool freeDuplicateFirst : {false, true}) {
            CSeq seq(nullptr);
            std::unique_ptr<CPart> part = filledPart();
            std::unique_ptr<CPart> duplicate(makeGhost(seq, *part, asGhost));
            (freeDuplicateFirst ? duplicate : part).reset();
            const CPart& survivor = *(freeDuplicateFirst ? part : duplicate);
            EXPECT_EQ(chainOf(survivor.getEvents()), (std::vector<Placed>{{60, 0}, {64, 480}}))
                << "asGhost " << asGhost << " duplicate freed first " << freeDuplicateFirst;
            ASSERT_NE(survivor.getAutomation(3), nullptr);
            EXPECT_EQ(static_cast<const CAutomationRec*>(survivor.getAutomation(3))->value, 0.5f);
        }
    }
}

TEST(ModelNames, TracksAndArrangementsTakeTheSmallestFreeNumberOfTheirWord) {
    constexpr int32_t arrangement = -1;
    struct Row {
        std::vector<const char*> existing;  // names of tracks, or of the arrangements in order
        int32_t type;
        const char* expected;
    };
    const Row rows[] = {
        {{"instrument2"}, trackInstrument, "instrument1"},
        {{"instrument1", "instrument3"}, trackInstrument, "instrument2"},
        {{"audio1", "folder1", "drum1"}, trackInstrument, "instrument1"},
        {{"Instrument1"}, trackInstrument, "instrument1"},
        {{"instrument01"}, trackInstrument, "instrument1"},
        {{"track1"}, 9, "track2"},
        {{"Mix 2"}, arrangement, "Mix 1"},
        {{"Mix 1", "Mix 3"}, arrangement, "Mix 2"},
        {{"Mix1", "mix 1"}, arrangement, "Mix 1"},
    };
    for (const Row& row : rows) {
        Project project;
        CSeq& seq = *project.seq;
        ASSERT_EQ(seq.programs.count(), 1) << "a new sequencer starts with one arrangement";
        EXPECT_STREQ(seq.prog(0)->name.c_str(), "Mix 1");
        if (row.type == arrangement) {
            while (seq.programs.count() < static_cast<int32_t>(row.existing.size())) seq.addProg();
            for (size_t i = 0; i < row.existing.size(); ++i) seq.prog(static_cast<int32_t>(i))->name = row.existing[i];
            EXPECT_STREQ(seq.addProg()->name.c_str(), row.expected);
        } else {
            for (const char* name : row.existing) addTrack(seq, trackFolder, nullptr, -1)->name = name;
            EXPECT_STREQ(trackName(seq, row.type).c_str(), row.expected) << "after " << namesOf(seq.tracks);
        }
    }
}

// Tracks of each type put in at the front, the middle and the end of two arrangements.
TEST(TrackInsert, TerminalsLanesAndLooksByTypeAndOrderFollowTheTracksInEveryArrangement) {
    enum Automation { none, inputPort, outputPort };
    struct Row {
        int32_t type, index;
        const char* name;
        int32_t inPorts, outPorts, inChannels, outChannels;
        bool velocityLane;
        int32_t height;
        bool expanded;
        Automation automation;
    };
    const Row rows[] = {
        {trackAudio, -1, "audio1", 1, 1, 1, 1, true, 40, false, inputPort},
        {trackInstrument, 0, "instrument1", 1, 1, 0, 0, true, 40, false, outputPort},
        {trackDrum, 1, "drum1", 1, 0, 0, 1, false, 40, false, inputPort},
        {trackAudio, 99, "audio2", 1, 1, 1, 1, true, 40, false, inputPort},
        {trackInstrument, 2, "instrument2", 1, 1, 0, 0, true, 40, false, outputPort},
        {trackFolder, 0, "folder1", 0, 0, 0, 0, false, 21, true, none},
        {7, -1, "track1", 0, 0, 0, 0, false, 40, false, none},
    };
    Project project;
    CSeq& seq = *project.seq;
    seq.addProg();
    for (const Row& row : rows) {
        CTrack* track = addTrack(seq, row.type, nullptr, row.index);
        SCOPED_TRACE(row.name);
        const int32_t expectedAt = row.index < 0 || row.index >= seq.tracks.count() ? seq.tracks.count() - 1 : row.index;
        EXPECT_EQ(seq.tracks.indexOf(track), expectedAt);
        EXPECT_STREQ(track->name.c_str(), row.name);
        EXPECT_EQ(std::tuple(track->inputPorts.count(), track->outputPorts.count(), track->inputChannels.count(),
                             track->outputChannels.count()),
                  std::tuple(row.inPorts, row.outPorts, row.inChannels, row.outChannels));
        for (const CInputChannel* channel : track->inputChannels) EXPECT_EQ(channel->buffer.frames(), project.engine.blockSize);
        for (const COutputChannel* channel : track->outputChannels) EXPECT_EQ(channel->buffer.frames(), project.engine.blockSize);
        ASSERT_EQ(track->subTracks.count(), row.velocityLane ? 1 : 0);
        if (row.velocityLane) {
            EXPECT_EQ(track->subTracks.getAt(0)->laneKind, laneVelocity);
            EXPECT_STREQ(track->subTracks.getAt(0)->name.c_str(), "Velocity");
        }
        EXPECT_EQ(track->height, row.height);
        EXPECT_EQ((track->flags.load() & trackflag::expanded) != 0, row.expanded);
        const CMIDIQ* automation[] = {nullptr, track->firstInputPort(), track->firstOutputPort()};
        EXPECT_EQ(track->automationPort(), automation[row.automation]);
        expectModelInTrackOrder(seq);
    }
    EXPECT_EQ(namesOf(seq.tracks), "folder1 instrument1 drum1 instrument2 audio1 audio2 track1 ");
    EXPECT_EQ(seq.midiCablesIn.count() + seq.audioCablesIn.count(), 0) << "a track made without a step is not wired";
    seq.addProg();
    expectModelInTrackOrder(seq);

    for (CTrack* track : seq.tracks) {
        for (CIO* io : std::vector<CIO*>{track->firstInputPort(), track->firstOutputPort(), track->firstInputChannel(),
                                         track->firstOutputChannel()}) {
            if (!io) continue;
            EXPECT_EQ(seq.trackOf(io), track);
            EXPECT_STREQ(seq.channelLabel(io).c_str(), track->name.c_str());
        }
        if (track->firstOutputChannel()) {
            EXPECT_EQ(seq.findTrack(track->firstOutputChannel()), track);
        }
    }
    EXPECT_EQ(seq.findTrack(project.audioOut->firstOutputChannel()), nullptr);
    EXPECT_EQ(seq.trackOf(project.midiIn->firstOutputPort()), nullptr);
    EXPECT_STREQ(seq.channelLabel(nullptr).c_str(), seq.name.c_str());
}

// Steps that are dropped (one never run, and undone ones cut off the history by a new step) free what
// they held, each once: the track, its terminals, song tracks and cables (checked under AddressSanitizer).
TEST(ModelUndo, NewTracksEnterAtTheEndOfACycleWiredToTheDevicesAndLeaveExactly) {
    Project project;
    CSeq& seq = *project.seq;
    seq.addProg();
    const std::string empty = modeldump::dump(seq);
    delete project.addTrackStep(trackAudio);
    CUndo* step = project.addTrackStep(trackInstrument);
    EXPECT_EQ(modeldump::dump(seq), empty) << "building the step leaves the model alone";

    project.apply(step);
    ASSERT_EQ(seq.tracks.count(), 1);
    CTrack* instrument = seq.tracks.getAt(0);
    auto ends = [](const auto* cable) {
        return std::tuple<const void*, const void*, const CComp*, const CComp*>{cable->output, cable->input,
                                                                               cable->source, cable->destination};
    };
    ASSERT_EQ(seq.midiCablesIn.count(), 1);
    EXPECT_EQ(ends(seq.midiCablesIn.getAt(0)),
              std::make_tuple(project.midiIn->firstOutputPort(), instrument->firstInputPort(), project.midiIn, &seq));

    project.apply(project.addTrackStep(trackAudio, 0));
    ASSERT_EQ(seq.tracks.count(), 2);
    CTrack* audio = seq.tracks.getAt(0);
    EXPECT_STREQ(audio->name.c_str(), "audio1");
    ASSERT_EQ(seq.audioCablesIn.count(), 1);
    EXPECT_EQ(ends(seq.audioCablesIn.getAt(0)),
              std::make_tuple(project.audioIn->firstOutputChannel(), audio->firstInputChannel(), project.audioIn, &seq));
    ASSERT_EQ(project.audioOut->audioCablesIn.count(), 1);
    EXPECT_EQ(ends(project.audioOut->audioCablesIn.getAt(0)),
              std::make_tuple(audio->firstOutputChannel(), project.audioOut->firstInputChannel(), &seq, project.audioOut));
    expectModelInTrackOrder(seq);

    const std::string after = modeldump::dump(seq);
    EXPECT_EQ(after.find('?'), std::string::npos) << "every reference resolves:\n" << after;
    project.undo();
    EXPECT_EQ(seq.tracks.count(), 1);
    EXPECT_EQ(project.audioOut->audioCablesIn.count(), 0);
    project.redo();
    EXPECT_EQ(modeldump::dump(seq), after);
    project.undo();
    project.undo();
    EXPECT_EQ(modeldump::dump(seq), empty);

    project.apply(project.addTrackStep(trackFolder));
    EXPECT_EQ(seq.midiCablesIn.count() + seq.audioCablesIn.count(), 0);
    // Several tracks in one step get distinct names and keep their order.
    step = beginUndo(project.engine, "Add Track", &seq, 48);
    for (int32_t index : {0, 1, 2}) addTrack(seq, trackInstrument, step, index);
    project.apply(step);
    EXPECT_EQ(namesOf(seq.tracks), "instrument1 instrument2 instrument3 folder1 ");
    expectModelInTrackOrder(seq);
}

TEST(ModelUndo, SwappedGhostContentReachesEveryGhostAndComesBackOnUndo) {
    Project project;
    CSeq& seq = *project.seq;
    addTrack(seq, trackInstrument, nullptr, -1);
    auto* part = new CMIDIPart();
    insertEvent(*part, 0, note(60));
    seq.prog(0)->songTracks.getAt(0)->parts.add(part);
    std::unique_ptr<CPart> ghost(makeGhost(seq, *part, true));
    const std::string before = modeldump::dump(seq);

    CPart* copy = part->contentHolder()->clone(0);
    insertEvent(*copy, 240, note(62));
    CUndo* step = beginUndo(project.engine, "Insert note", &seq, 0);
    swapPart(*step, ghost.get(), copy);
    EXPECT_EQ(chainOf(part->getEvents()), (std::vector<Placed>{{60, 0}})) << "the edit waits for the cycle's end";
    project.apply(step);
    EXPECT_EQ(chainOf(part->getEvents()), (std::vector<Placed>{{60, 0}, {62, 240}})) << "every ghost plays the edit";
    const std::string after = modeldump::dump(seq);

    project.undo();
    EXPECT_EQ(modeldump::dump(seq), before);
    EXPECT_EQ(chainOf(ghost->getEvents()), (std::vector<Placed>{{60, 0}}));
    project.redo();
    EXPECT_EQ(modeldump::dump(seq), after);
}

}  // namespace
