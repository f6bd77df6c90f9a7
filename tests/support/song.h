#pragma once
// A small song for sequencer tests and benchmarks: an engine, a sequencer with instrument tracks, and
// a recorder that keeps what the tracks send with absolute frames.

#include <algorithm>
#include <random>
#include <cstdint>
#include <vector>

#include "engine/engine.h"
#include "engine/io.h"
#include "seq/seq.h"

namespace songtest {

// Collects what the sequencer's tracks send, with absolute frames.
class Recorder : public CComp {
public:
    explicit Recorder(CQV* engine) : CComp(engine) {
        received.reserve(1 << 16);
    }
    void processBlock(int32_t /*frames*/) override {
        for (const CMIDIEvent* e = firstInputPort()->first(); e; e = e->next)
            if (received.size() < received.capacity())
                received.push_back({cycleStart + e->frame, e->midi, e->type, e->value, e->target});
    }
    struct Item {
        double frame;
        uint32_t midi;
        EventType type;
        float value;
        void* target;
    };
    std::vector<Item> received;
    int64_t cycleStart = 0;
};

struct Song {
    explicit Song(float sampleRate = 48000.0f, float bpm = 120.0f, int32_t tracks = 1) : engine(EngineOptions{false, 1}) {
        engine.setSampleRate(sampleRate);
        engine.bpm = bpm;
        engine.bpmTarget = bpm;
        seq = new CSeq(&engine);
        seq->createPorts();
        engine.addComp(seq);
        recorder = new Recorder(&engine);
        recorder->addInputPort();
        engine.addComp(recorder);
        for (int32_t t = 0; t < tracks; ++t) {
            CTrack* track = addTrack(*seq, trackInstrument, nullptr, -1);
            recorder->midiCablesIn.add(makeMIDICable(recorder, track->firstOutputPort(), recorder->firstInputPort()));
        }
    }
    CSongTrack& songTrack(int32_t index = 0) { return *seq->currentProg()->songTracks.getAt(index); }
    CMIDIPart* addPart(int32_t track, int32_t start, int32_t length) {
        auto* part = new CMIDIPart();
        part->start = start;
        part->length = length;
        part->songTrack = &songTrack(track);
        songTrack(track).parts.add(part);
        return part;
    }
    static void addNote(CPart& part, int32_t tick, uint8_t key, int32_t duration, uint8_t channel = 0) {
        auto* note = new CMIDIEventRec();
        note->message = packMIDI(static_cast<uint8_t>(0x90 | channel), key, 100);
        note->duration = duration;
        insertEvent(part, tick, note);
    }
    void cycle(int32_t frames) {
        recorder->cycleStart = framesRun;
        engine.runCycle(frames);
        recorder->process(frames);
        framesRun += frames;
    }
    void runFor(int64_t frames, int32_t block) {
        while (frames > 0) {
            const auto n = static_cast<int32_t>(std::min<int64_t>(frames, block));
            cycle(n);
            frames -= n;
        }
    }

    CQV engine;
    CSeq* seq;
    Recorder* recorder;
    int64_t framesRun = 0;
};

// Fills every track with parts of 16 bars and random notes: the load of a long, dense song.
inline void populate(Song& song, int32_t partsPerTrack, int32_t notesPerPart, uint32_t seed) {
    std::mt19937 random(seed);
    constexpr int32_t partLength = 3840 * 16;
    for (int32_t t = 0; t < song.seq->tracks.count(); ++t) {
        for (int32_t p = 0; p < partsPerTrack; ++p) {
            CMIDIPart* part = song.addPart(t, p * partLength, partLength);
            for (int32_t n = 0; n < notesPerPart; ++n)
                Song::addNote(*part, static_cast<int32_t>(random() % partLength), static_cast<uint8_t>(random() % 128),
                              30 + static_cast<int32_t>(random() % 600));
        }
    }
}

}  // namespace songtest
