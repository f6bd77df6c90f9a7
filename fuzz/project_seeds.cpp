// Writes small whole projects into folder argv[1] for the project fuzz targets. A saved song with its
// synthesizers is far longer than the fuzzer's inputs, and a cut of it never reaches the cables, strips,
// groups, automation and later arrangements; these projects hold each of those within a few kilobytes,
// and play in a short loop, so that each input stays cheap.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "core/stream.h"
#include "engine/engine.h"
#include "engine/fx.h"
#include "engine/io.h"
#include "files/project.h"
#include "fx/effect.h"
#include "fx/effects.h"
#include "seq/seq.h"
#include "sound/sampler.h"

namespace {

template <class T>
T* add(CQV& engine) {
    auto* comp = new T(&engine);
    comp->createPorts();
    engine.addComp(comp);
    return comp;
}

void cableAudio(CComp& from, CComp& to) {
    to.audioCablesIn.add(makeAudioCable(&to, from.firstOutputChannel(), to.firstInputChannel()));
}

template <class Part>
Part* addPart(CSongTrack& songTrack, int32_t start, int32_t length) {
    auto* made = new Part();
    made->start = start, made->length = length, made->songTrack = &songTrack;
    songTrack.parts.add(made);
    return made;
}

void addNotes(CMIDIPart& part, int32_t count, int32_t spacing) {
    for (int32_t k = 0; k < count; ++k) {
        auto* note = new CMIDIEventRec();
        note->message = packMIDI(0x90, static_cast<uint8_t>(48 + (k * 5) % 24), 100);
        note->duration = spacing / 2 + k;
        insertEvent(part, k * spacing, note);
    }
    auto* controller = new CMIDIEventRec();
    controller->message = packMIDI(0xB0, 7, 90);
    insertEvent(part, spacing / 3, controller);
}

void addAutomation(CPart& part, int32_t slot, int32_t points) {
    for (int32_t k = 0; k < points; ++k) {
        auto* point = new CAutomationRec();
        point->delta = 60, point->value = 0.25f * static_cast<float>(k % 5), point->shape = k % 2, point->curve = 0.3f;
        point->next = part.automation[slot];
        part.automation[slot] = point;
    }
}

CSubTrack* addLane(CTrack& track, void* target) {
    auto* lane = new CSubTrack(laneAutomation);
    lane->name = "Automation";
    lane->slot = track.subTracks.count();
    lane->target = target;
    track.subTracks.add(lane);
    return lane;
}

// Sequencer, synthesizer, output: notes, a controller, groove, tempo and signature changes, a marker and
// automation of the synthesizer's strip, in a loop of a 64th note.
void song(CQV& engine) {
    engine.bpm = 140.0f;
    auto* out = add<CAudioOut>(engine);
    auto* seq = add<CSeq>(engine);
    CTrack* instrument = addTrack(*seq, trackInstrument, nullptr, -1);
    instrument->grooveSteps = 2;
    instrument->grooveValues[1] = 0.4f;
    instrument->grooveAmount = 0.8f;
    // A new sampler holds every factory program, far more than an input: this one holds two.
    auto* sampler = new CSampler(&engine);
    sampler->addDefaultProgram(nullptr);
    sampler->factoryProgram(nullptr, 0, nullptr, true);
    sampler->createPorts();
    engine.addComp(sampler);
    sampler->midiCablesIn.add(makeMIDICable(sampler, instrument->firstOutputPort(), sampler->firstInputPort()));
    cableAudio(*sampler, *out);
    addLane(*instrument, sampler->firstOutputChannel());
    addLane(*instrument, sampler);

    CSeqProg& prog = *seq->currentProg();
    prog.leftLocator = 0, prog.rightLocator = 60;
    auto* midi = addPart<CMIDIPart>(*prog.songTracks.getAt(0), 0, 960);
    addNotes(*midi, 12, 40);
    addAutomation(*midi, 0, 6);
    addAutomation(*midi, 1, 3);
    auto* tempo = new CTempoPart();
    tempo->start = 240, tempo->tempo = 90.0f;
    prog.tempos.add(tempo);
    auto* signature = new CTimesigPart();
    signature->start = 480, signature->numerator = 3;
    prog.signatures.add(signature);
    auto* marker = new CMarkerPart();
    marker->start = 120, marker->name = "A";
    prog.markers.add(marker);
    prog.nextMarker = marker;
}

// Drum and audio parts, a ghost, a folder and a second arrangement; an effect with every kind of
// effect, a group channel fed by a send, and an insert on a strip.
void mix(CQV& engine) {
    auto* out = add<CAudioOut>(engine);
    auto* audioIn = add<CAudioIn>(engine);
    auto* seq = add<CSeq>(engine);
    CTrack* folder = addTrack(*seq, trackFolder, nullptr, -1);
    CTrack* drum = addTrack(*seq, trackDrum, nullptr, -1);
    CTrack* audio = addTrack(*seq, trackAudio, nullptr, -1);
    CTrack* instrument = addTrack(*seq, trackInstrument, nullptr, -1);
    drum->parentFolder = folder;
    seq->audioCablesIn.add(makeAudioCable(seq, audioIn->firstOutputChannel(), audio->firstInputChannel()));

    auto* effect = add<CEffect>(engine);
    for (int32_t kind = fxDelay; kind <= fxCompressor; ++kind) effect->effectProgram(0)->effects.add(createFX(kind));
    cableAudio(*seq, *effect);
    cableAudio(*effect, *out);
    auto* group = new CGroupCh(&engine);
    group->createPorts();
    engine.addGroupChannel(group);
    cableAudio(*group, *out);

    COutputChannel& strip = *effect->firstOutputChannel();
    strip.volume = 0.7f, strip.pan = 0.3f;
    strip.eqSettings[2].power = 1, strip.eqSettings[2].gain = 3.0f;
    strip.sends[0]->level = 0.5f;
    CComp* insert = createComp(&engine, compEffect);
    insert->createPorts();
    insert->wetLevel = 0.5f;
    insert->parentChannel = &strip;
    insert->orderClass = orderInsert;
    strip.inserts.add(insert);
    addLane(*instrument, strip.sends[0]);
    addLane(*instrument, insert);

    CSeqProg& prog = *seq->currentProg();
    prog.leftLocator = 120, prog.rightLocator = 180;
    auto* drums = addPart<CDrumPart>(*prog.songTracks.getAt(1), 0, 480);
    for (int32_t k = 0; k < 8; ++k) {
        auto* hit = new CDrumEventRec();
        hit->pad = k % 4, hit->velocity = k % 2 ? 0.5f : 1.0f, hit->pitch = k == 5 ? 2.0f : 1.0f;
        insertEvent(*drums, k * 60, hit);
    }
    prog.songTracks.getAt(1)->parts.add(makeGhost(*seq, *drums, true));
    auto* audioPart = addPart<CAudioPart>(*prog.songTracks.getAt(2), 60, 480);
    auto* clip = new CAudioEventRec();
    clip->gain = 0.8f, clip->fadeInMs = 5.0f, clip->endFrame = 4000;
    insertEvent(*audioPart, 30, clip);
    auto* midi = addPart<CMIDIPart>(*prog.songTracks.getAt(3), 0, 480);
    addNotes(*midi, 6, 60);
    addAutomation(*midi, 0, 4);
    addAutomation(*midi, 1, 4);
    seq->addProg()->leftLocator = 240;
}

void write(void (*build)(CQV&), const std::filesystem::path& path) {
    CQV engine(EngineOptions{false, 1});
    engine.setSampleRate(48000.0);
    build(engine);
    CMemoryStream stream;
    files::writeProject(engine, stream);
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(stream.data()), stream.getSize());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: project_seeds FOLDER\n");
        return 2;
    }
    registerSequencerTypes();
    registerEffects();
    registerSoundComponents();
    const std::filesystem::path folder = argv[1];
    write(song, folder / "song.qv");
    write(mix, folder / "mix.qv");
    return 0;
}
