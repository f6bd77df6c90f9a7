#include <gtest/gtest.h>

#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <limits>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "core/stream.h"
#include "engine/fx.h"
#include "files/project.h"
#include "fx/effect.h"
#include "fx/effects.h"
#include "fx/mixer.h"
#include "seq/seq.h"
#include "sound/sampler.h"
#include "support/bytes.h"
#include "support/engine_graph.h"

namespace {

using bytestest::bytesOf;
using files::LoadOutcome;

std::vector<uint8_t> saved(CQV& engine, CMixer* mixer = nullptr) {
    CMemoryStream stream;
    files::writeProject(engine, stream, {mixer, {}});
    return bytesOf(stream);
}

std::vector<uint8_t> fileBytes(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Collects the messages a load gives the user.
struct Messages {
    files::ProjectContext context(CMixer* mixer = nullptr) {
        return {mixer, [this](const CString& caption, const CString& text) { said.push_back(std::string(caption.c_str()) + ": " + text.c_str()); }};
    }
    std::vector<std::string> said;
};

LoadOutcome load(CQV& engine, const std::vector<uint8_t>& bytes, const files::ProjectContext& context = {}) {
    CMemoryStream stream;
    bytestest::fill(stream, bytes);
    return files::readProject(engine, stream, context);
}

CSeq* sequencerOf(const CQV& engine) {
    for (CComp* comp : engine.comps)
        if (comp->isSequencer()) return static_cast<CSeq*>(comp);
    return nullptr;
}

// A project with every kind of track, part, event, component, cable, program and effect there is.
struct FullProject {
    FullProject() : engine(EngineOptions{false, 1}), mixer(&engine) {
        registerEffects();
        registerSoundComponents();
        engine.setSampleRate(48000.0);
        engine.bpm = 133.0f;
        engine.timeSigNum = 3, engine.timeSigDen = 8, engine.loop = 0;
        engine.audioDir = "song_audio";
        engine.transportCC[ccPlay] = 20;
        engine.modSlots[3].cc = 74;
        mixer.addProgram()->show = 5;
        mixer.editorPlace[0] = 77;

        auto* midiIn = testgraph::add<CMIDIIn>(engine);
        auto* audioIn = testgraph::add<CAudioIn>(engine);
        auto* out = testgraph::add<CAudioOut>(engine);
        testgraph::add<CMIDIOut>(engine);
        auto* seq = testgraph::add<CSeq>(engine);
        CTrack* folder = addTrack(*seq, trackFolder, nullptr, -1);
        CTrack* instrument = addTrack(*seq, trackInstrument, nullptr, -1);
        CTrack* audio = addTrack(*seq, trackAudio, nullptr, -1);
        addTrack(*seq, trackDrum, nullptr, -1);
        instrument->parentFolder = folder;
        instrument->color = 0x123456;
        instrument->grooveSteps = 3;
        instrument->grooveValues[2] = 0.7f;
        instrument->channel = -1;
        audio->recordChannels = 1;
        seq->snap.gridType = 5;
        seq->options[seqoption::markerTrack] = 1;

        auto* sampler = testgraph::add<CSampler>(engine);
        sampler->addDefaultProgram(nullptr);
        sampler->midiCablesIn.add(makeMIDICable(sampler, instrument->firstOutputPort(), sampler->firstInputPort()));
        seq->midiCablesIn.add(makeMIDICable(seq, midiIn->firstOutputPort(), instrument->firstInputPort()));
        seq->audioCablesIn.add(makeAudioCable(seq, audioIn->firstOutputChannel(), audio->firstInputChannel()));

        auto* effect = testgraph::add<CEffect>(engine);
        for (int32_t kind = fxDelay; kind <= fxCompressor; ++kind) effect->effectProgram(0)->effects.add(createFX(kind));
        testgraph::connectAudio(*sampler, *effect);
        testgraph::connectAudio(*effect, *out);
        testgraph::connectAudio(*seq, *out);

        auto* group = new CGroupCh(&engine);
        group->createPorts();
        engine.addGroupChannel(group);
        out->audioCablesIn.add(makeAudioCable(out, group->firstOutputChannel(), out->firstInputChannel()));

        COutputChannel& strip = *sampler->firstOutputChannel();
        strip.volume = 0.6f, strip.pan = -0.25f, strip.mute = 1;
        strip.eqSettings[1].power = 1, strip.eqSettings[1].gain = 4.5f;
        strip.sends[0]->level = 0.3f;
        CComp* insert = createComp(&engine, compEffect);
        insert->createPorts();
        insert->name = "Insert";
        insert->wetLevel = 0.5f;
        insert->parentChannel = &strip;
        insert->orderClass = orderInsert;
        strip.inserts.add(insert);
        for (void* target : {static_cast<void*>(sampler), static_cast<void*>(insert), static_cast<void*>(&strip),
                             static_cast<void*>(strip.sends[0])}) {
            auto* lane = new CSubTrack(laneAutomation);
            lane->name = "Automation";
            lane->slot = instrument->subTracks.count();
            lane->target = target;
            instrument->subTracks.add(lane);
        }

        CSeqProg& prog = *seq->currentProg();
        auto* midi = part<CMIDIPart>(*prog.songTracks.getAt(1), 960, 7680);
        for (int32_t k = 0; k < 40; ++k) {
            auto* note = new CMIDIEventRec();
            note->message = packMIDI(0x90, static_cast<uint8_t>(48 + k % 24), static_cast<uint8_t>(k % 3 ? 100 : 0));
            note->duration = 120 + k;
            insertEvent(*midi, k * 180, note);
        }
        auto* controller = new CMIDIEventRec();
        controller->message = packMIDI(0xB0, 7, 90);
        insertEvent(*midi, 500, controller);
        for (int32_t k = 0; k < 5; ++k) {
            auto* point = new CAutomationRec();
            point->delta = 240, point->value = 0.2f * static_cast<float>(k), point->shape = k % 2, point->curve = 0.1f;
            point->next = midi->automation[2];
            midi->automation[2] = point;
        }
        prog.songTracks.getAt(1)->parts.add(makeGhost(*seq, *midi, true));

        auto* audioPart = part<CAudioPart>(*prog.songTracks.getAt(2), 0, 3840);
        audioPart->multiClip = 1, audioPart->audioChannels = 2;
        auto* clip = new CAudioEventRec();
        clip->gain = 0.8f, clip->fadeInMs = 12.0f, clip->endFrame = 44100;
        insertEvent(*audioPart, 100, clip);

        auto* drums = part<CDrumPart>(*prog.songTracks.getAt(3), 0, 3840);
        for (int32_t k = 0; k < 8; ++k) {
            auto* hit = new CDrumEventRec();
            hit->pad = k % 4;
            hit->velocity = k % 2 ? 0.5f : 1.0f;
            hit->pan = k % 3 ? 0.0f : -0.5f;
            hit->pitch = k == 5 ? 2.0f : 1.0f;
            insertEvent(*drums, k * 240, hit);
        }

        auto* marker = new CMarkerPart();
        marker->start = 3840, marker->name = "Chorus";
        prog.markers.add(marker);
        prog.nextMarker = marker;
        auto* signature = new CTimesigPart();
        signature->start = 7680, signature->numerator = 7;
        prog.signatures.add(signature);
        auto* tempo = new CTempoPart();
        tempo->start = 1920, tempo->tempo = 97.5f;
        prog.tempos.add(tempo);
        seq->addProg()->leftLocator = 960;
        seq->program = 1;
    }

    template <class Part>
    static Part* part(CSongTrack& songTrack, int32_t start, int32_t length) {
        auto* made = new Part();
        made->start = start, made->length = length, made->songTrack = &songTrack;
        songTrack.parts.add(made);
        return made;
    }

    CQV engine;
    CMixer mixer;
};

TEST(Project, SaveOpenAndSaveAgainGiveTheSameBytes) {
    FullProject project;
    const std::vector<uint8_t> first = saved(project.engine, &project.mixer);

    CQV engine(EngineOptions{false, 1});
    CMixer mixer(&engine);
    Messages messages;
    ASSERT_EQ(load(engine, first, messages.context(&mixer)), LoadOutcome::loaded);
    EXPECT_TRUE(messages.said.empty()) << messages.said.front();
    EXPECT_EQ(saved(engine, &mixer), first);

    // The links the loader makes, which a second save would write the same without them.
    ASSERT_EQ(engine.comps.count(), project.engine.comps.count());
    CSeq* seq = sequencerOf(engine);
    ASSERT_NE(seq, nullptr);
    CTrack* instrument = seq->tracks.getAt(1);
    CSeqProg& prog = *seq->prog(0);
    ASSERT_EQ(prog.songTracks.getAt(1)->parts.count(), 2);
    EXPECT_EQ(prog.songTracks.getAt(1)->parts.getAt(0)->ghostSource, prog.songTracks.getAt(1)->parts.getAt(1)->ghostSource);
    for (CSongTrack* each : prog.songTracks)
        for (CPart* part : each->parts) EXPECT_EQ(part->songTrack, each);
    EXPECT_EQ(prog.nextMarker, prog.markers.getAt(0));

    auto* sampler = static_cast<CSampler*>(engine.comps.getAt(5));
    COutputChannel& strip = *sampler->firstOutputChannel();
    ASSERT_EQ(strip.inserts.count(), 1);
    CComp* insert = strip.inserts.getAt(0);
    EXPECT_EQ(insert->wetLevel.load(), 0.5f);
    EXPECT_EQ(insert->parentChannel, &strip);
    const void* targets[] = {sampler, insert, &strip, strip.sends[0]};
    for (int32_t lane = 1; lane <= 4; ++lane) EXPECT_EQ(instrument->subTracks.getAt(lane)->target, targets[lane - 1]) << lane;
    ASSERT_EQ(sampler->midiCablesIn.count(), 1);
    EXPECT_EQ(sampler->midiCablesIn.getAt(0)->output, instrument->firstOutputPort());
}

// A block as the bytes hold it, read straight from them so that the writer is held against the file's
// layout and not against its own reader, which shares its field order.
struct RawBlock {
    std::string tag;
    uint32_t declared;
    std::vector<uint8_t> payload;
};

std::vector<RawBlock> rawBlocks(const std::vector<uint8_t>& bytes, size_t at, size_t end) {
    const auto word = [&](size_t p) {
        uint32_t v;
        std::memcpy(&v, &bytes[p], 4);
        return v;
    };
    std::vector<RawBlock> blocks;
    while (at + 8 <= end) {
        const size_t length = word(at), start = at + 8 + length;
        std::string tag(bytes.begin() + static_cast<ptrdiff_t>(at + 4), bytes.begin() + static_cast<ptrdiff_t>(at + 4 + length));
        const uint32_t declared = word(at + 4 + length);
        const size_t held = tag == "tempo" ? 24 : declared;  // "tempo" declares 32 and holds 24
        if (start + held > end) {
            ADD_FAILURE() << "block '" << tag << "' runs past its parent";
            break;
        }
        blocks.push_back({std::move(tag), declared, {bytes.begin() + static_cast<ptrdiff_t>(start), bytes.begin() + static_cast<ptrdiff_t>(start + held)}});
        at = start + held;
    }
    return blocks;
}

std::vector<const RawBlock*> tagged(const std::vector<RawBlock>& blocks, const std::string& tag) {
    std::vector<const RawBlock*> found;
    for (const RawBlock& block : blocks)
        if (block.tag == tag) found.push_back(&block);
    return found;
}

TEST(Project, EveryBlockLaysItsFieldsOutAsTheFormatSays) {
    using bytestest::Bytes;
    FullProject project;
    const std::vector<uint8_t> file = saved(project.engine, &project.mixer);
    ASSERT_GT(file.size(), 7u);
    EXPECT_EQ(std::vector<uint8_t>(file.begin(), file.begin() + 7), Bytes().text("QV3").data);
    const std::vector<RawBlock> top = rawBlocks(file, 7, file.size());

    // The top level in write order (blocks the program has no use for yet stay out).
    const std::vector<std::string> order = {"bpm", "loop", "timeSig", "audiodir", "samples2", "comp2", "mixer", "mixed",
                                            "ac", "mc", "ccplay", "ccstop", "ccrew", "ccrec", "ccbpm", "automap"};
    size_t last = 0;
    for (const RawBlock& block : top) {
        const auto at = std::find(order.begin(), order.end(), block.tag);
        if (at == order.end()) continue;
        const size_t place = static_cast<size_t>(at - order.begin());
        EXPECT_GE(place, last) << "'" << block.tag << "' out of order";
        last = std::max(last, place);
    }
    const auto one = [&](const std::vector<RawBlock>& blocks, const char* tag) -> std::vector<uint8_t> {
        const auto found = tagged(blocks, tag);
        if (found.size() != 1) {
            ADD_FAILURE() << found.size() << " blocks '" << tag << "'";
            return {};
        }
        EXPECT_EQ(found[0]->declared, found[0]->payload.size()) << tag;
        return found[0]->payload;
    };
    CQV& engine = project.engine;
    EXPECT_EQ(one(top, "bpm"), Bytes().f32(133.0f).data);
    EXPECT_EQ(one(top, "loop"), Bytes().u32(0).data);
    EXPECT_EQ(one(top, "timeSig"), Bytes().u32(3).u32(8).data);
    EXPECT_EQ(one(top, "audiodir"), Bytes().text("song_audio").data);
    EXPECT_EQ(one(top, "samples2"), Bytes().u32(0).data);
    Bytes place, automap, play;
    for (int32_t value : project.mixer.editorPlace) place.i32(value);
    EXPECT_EQ(one(top, "mixed"), place.data);
    automap.u32(16);
    for (const auto& slot : engine.modSlots) automap.u32(static_cast<uint32_t>(slot.cc));
    EXPECT_EQ(one(top, "automap"), automap.data);
    EXPECT_EQ(one(top, "ccplay"), Bytes().i32(20).data);
    // The group channel into Audio Out (component 2): from the group list, to the component list.
    const std::vector<uint8_t> groupCable = Bytes().u8(2).u32(0).u8(0).u8(0).u32(2).u8(0).data;
    const auto cables = tagged(top, "ac");
    EXPECT_TRUE(std::any_of(cables.begin(), cables.end(), [&](const RawBlock* c) { return c->payload == groupCable; }));
    for (const RawBlock* cable : cables) EXPECT_EQ(cable->declared, 12u);

    // The frames: the engine first as class 0, then the components as class 1, then the group as class 3.
    const auto frames = tagged(top, "comp2");
    ASSERT_EQ(frames.size(), 1u + static_cast<size_t>(engine.comps.count()) + 1u);
    const auto head = [](const CComp& comp, uint8_t frameClass) {
        return Bytes().u8(static_cast<uint32_t>(comp.kind)).u8(static_cast<uint32_t>(comp.subKind)).u8(frameClass)
            .i32(comp.x).i32(comp.y).text(comp.name.c_str()).i32(comp.power.load()).u32(comp.flags.load()).u32(0).u32(0).data;
    };
    const auto startsWith = [](const std::vector<uint8_t>& bytes, const std::vector<uint8_t>& prefix) {
        return bytes.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), bytes.begin());
    };
    EXPECT_TRUE(startsWith(frames[0]->payload, head(engine, 0)));
    for (int32_t k = 0; k < engine.comps.count(); ++k)
        EXPECT_TRUE(startsWith(frames[1 + static_cast<size_t>(k)]->payload, head(*engine.comps.getAt(k), 1))) << k;
    EXPECT_TRUE(startsWith(frames.back()->payload, head(*engine.groupChannels.getAt(0), 3)));

    // The sequencer's own blocks, behind its frame's head.
    CSeq& seq = *sequencerOf(engine);
    const std::vector<uint8_t>& seqFrame = frames[1 + static_cast<size_t>(engine.comps.indexOf(&seq))]->payload;
    const auto inner = rawBlocks(seqFrame, head(seq, 1).size(), seqFrame.size());
    const std::vector<uint8_t> snap = one(inner, "snap");
    ASSERT_EQ(snap.size(), 8u);
    EXPECT_EQ(std::vector<uint8_t>(snap.begin() + 4, snap.end()), Bytes().u32(5).data);

    const auto tracks = tagged(inner, "track");
    ASSERT_EQ(tracks.size(), 4u);
    const CTrack& instrument = *seq.tracks.getAt(1);
    EXPECT_EQ(tracks[1]->declared, 44 + instrument.name.length());
    EXPECT_EQ(tracks[1]->payload, Bytes().i32(instrument.type).u32(instrument.flags.load()).text(instrument.name.c_str())
                                      .i32(instrument.height).i32(instrument.expandedHeight).i32(0).i32(0)
                                      .u8(0).u8(255).u8(instrument.monitor).u8(instrument.recordChannels)
                                      .i32(instrument.noteHeight).i32(instrument.transpose).u32(0).data);
    EXPECT_EQ(tagged(inner, "trackCol")[1]->payload, Bytes().u32(0x123456).data);
    Bytes groove;
    groove.f32(instrument.grooveSwing).f32(instrument.grooveAmount).u32(0).u32(0).f32(instrument.grooveStrength)
        .i32(instrument.grooveGrid).i32(3).f32(instrument.grooveValues[0]).f32(instrument.grooveValues[1]).f32(0.7f);
    EXPECT_EQ(tagged(inner, "trackGroove")[1]->payload, groove.data);

    const CSeqProg& prog = *seq.prog(0);
    const auto progs = tagged(inner, "prog");
    ASSERT_EQ(progs.size(), 2u);
    EXPECT_EQ(progs[0]->payload, Bytes().f32(0.0f).u8(prog.loopOn).i32(prog.leftLocator).i32(prog.rightLocator)
                                     .text(prog.name.c_str()).data);
    EXPECT_EQ(progs[0]->declared, 17 + prog.name.length());
    // The MIDI part became a ghost of a source the sequencer holds, which carries the events.
    const auto parts = tagged(inner, "part");
    ASSERT_EQ(seq.ghostSources.count(), 1);
    const CPart& source = *seq.ghostSources.getAt(0);
    const auto partHead = [](const CPart& part, uint8_t inTrack, uint32_t ghost) {
        return Bytes().u8(2).u8(static_cast<uint32_t>(part.subKind)).u8(inTrack).u32(ghost).i32(part.start)
            .i32(part.offset).i32(part.length).u32(0).text(part.name.c_str()).data;
    };
    const auto hasPart = [&](const std::vector<uint8_t>& expected) {
        return std::any_of(parts.begin(), parts.end(), [&](const RawBlock* b) { return b->payload == expected; });
    };
    EXPECT_TRUE(hasPart(partHead(source, 0, 0xFFFFFFFF))) << "the ghost source, outside the song tracks";
    EXPECT_TRUE(hasPart(partHead(*prog.songTracks.getAt(1)->parts.getAt(0), 1, 0))) << "a ghost in its song track";
    for (const RawBlock* part : parts) EXPECT_EQ(part->declared, part->payload.size());
    const std::vector<uint8_t> notes = tagged(inner, "mevents")[0]->payload;
    const std::vector<uint8_t> firstNote = Bytes().u32(41).u32(0).u8(0).u32(packMIDI(0x90, 48, 0)).u32(180).u8(0)
                                               .u32(packMIDI(0x90, 49, 100)).u32(121).data;
    EXPECT_TRUE(startsWith(notes, firstNote)) << "a note-on of velocity 0 carries no duration";
    // Automation: slot, count, then delta, flags, value, curve, shape.
    EXPECT_TRUE(startsWith(tagged(inner, "amevents")[0]->payload,
                           Bytes().u32(2).u32(5).u32(240).u8(0).f32(0.8f).f32(0.1f).u8(0).data));
    // Drums: delta, pad, flags, duration, then only the values off their defaults.
    EXPECT_TRUE(startsWith(tagged(inner, "devents")[0]->payload,
                           Bytes().u32(8).u32(0).u8(0).u8(0).u32(240).u8(1).u8(1).f32(-0.5f)
                               .u32(240).u8(1).u8(0).u32(240).u8(1).u8(0).f32(0.5f).data));
    const auto clips = tagged(inner, "aevents");
    ASSERT_EQ(clips.size(), 1u);
    EXPECT_EQ(clips[0]->payload.size(), 4u + 80u);

    // The timeline of the arrangement.
    EXPECT_EQ(one(inner, "marker"), Bytes().text("Chorus").u8(0).u8(0).u8(0).u8(0).i32(3840).i32(960).u32(0x00040004)
                                        .f32(120.0f).zeros(12).data);
    EXPECT_EQ(one(inner, "amarker"), Bytes().i32(0).data);
    const CTimesigPart& signature = *prog.signatures.getAt(0);
    EXPECT_EQ(one(inner, "timesig"), Bytes().text(signature.name.c_str()).i32(7680).i32(signature.length).i32(7)
                                         .i32(signature.denominator).f32(-1.0f).zeros(12).data);
    const auto tempos = tagged(inner, "tempo");
    ASSERT_EQ(tempos.size(), 1u);
    EXPECT_EQ(tempos[0]->declared, 32u);
    EXPECT_EQ(tempos[0]->payload, Bytes().i32(1920).i32(prog.tempos.getAt(0)->length).f32(97.5f).zeros(12).data);
}

TEST(Project, DamagedFilesLoadWhatTheyCanAndNeverCrash) {
    FullProject project;
    const std::vector<uint8_t> good = saved(project.engine);
    const auto exercise = [](const std::vector<uint8_t>& bytes) {
        CQV engine(EngineOptions{false, 1});
        Messages messages;
        const LoadOutcome outcome = load(engine, bytes, messages.context());
        // Load, then play and save what was read: damage often shows only there.
        engine.start();
        for (int32_t k = 0; k < 3; ++k) engine.runCycle(256);
        engine.stop();
        saved(engine);
        return std::pair{outcome, messages.said.size()};
    };

    size_t reported = 0;
    for (size_t length = 0; length < good.size(); length += 1 + length / 8) {
        const auto [outcome, said] = exercise({good.begin(), good.begin() + static_cast<std::ptrdiff_t>(length)});
        EXPECT_EQ(outcome, length < 7 ? LoadOutcome::notProject : LoadOutcome::loaded) << length;
        reported += said;
    }
    EXPECT_GT(reported, 0u);
    std::mt19937 random(7);
    for (int32_t trial = 0; trial < 120; ++trial) {
        std::vector<uint8_t> bytes = good;
        for (int32_t k = 0; k < 1 + trial % 8; ++k) bytes[7 + random() % (bytes.size() - 7)] = static_cast<uint8_t>(random());
        exercise(bytes);
    }
    // Each terminal block lost in turn (its tag unknown): a component short of a port or channel plays nothing.
    for (const std::string tag : {"min", "mout", "ain", "aout", "mini", "mouti", "aini", "aouti"}) {
        const std::string header = std::string{static_cast<char>(tag.size()), '\0', '\0', '\0'} + tag;
        for (auto at = std::search(good.begin(), good.end(), header.begin(), header.end()); at != good.end();
             at = std::search(at + 1, good.end(), header.begin(), header.end())) {
            std::vector<uint8_t> bytes = good;
            bytes[static_cast<size_t>(at - good.begin()) + header.size() - 1] = '_';
            EXPECT_EQ(exercise(bytes).first, LoadOutcome::loaded) << tag;
        }
    }
}

// Values that playback computes with, damaged in a saved file: each is brought into range as it is
// read, so a loop played over the part runs clean under the undefined-behaviour checks.
TEST(Project, OutOfRangeValuesAreBroughtIntoRangeWhenRead) {
    const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
    struct Row {
        const char* what;
        std::function<void(CSeq&, CTrack&, CPart&, COutputChannel&)> damage;
        std::function<bool(const CSeq&, const CTrack&, const CPart&, const COutputChannel&)> inRange;
    };
    const Row rows[] = {
        {"NaN groove value", [nan](CSeq&, CTrack& t, CPart&, COutputChannel&) { t.grooveStrength = 1.0f, t.grooveValues[0] = nan; },
         [](const CSeq&, const CTrack& t, const CPart&, const COutputChannel&) { return t.grooveValues[0] == 0.0f; }},
        {"infinite groove value", [inf](CSeq&, CTrack& t, CPart&, COutputChannel&) { t.grooveStrength = 1.0f, t.grooveValues[1] = inf; },
         [](const CSeq&, const CTrack& t, const CPart&, const COutputChannel&) { return t.grooveValues[1] == 1.0f; }},
        {"infinite groove strength", [inf](CSeq&, CTrack& t, CPart&, COutputChannel&) { t.grooveStrength = -inf; },
         [](const CSeq&, const CTrack& t, const CPart&, const COutputChannel&) { return t.grooveStrength == 0.0f; }},
        {"huge start and offset", [](CSeq&, CTrack&, CPart& p, COutputChannel&) { p.start = INT32_MAX - 10, p.offset = INT32_MAX; },
         [](const CSeq&, const CTrack&, const CPart& p, const COutputChannel&) { return p.start == maxSongTick && p.offset == maxSongTick; }},
        {"negative length", [](CSeq&, CTrack&, CPart& p, COutputChannel&) { p.length = -5000; },
         [](const CSeq&, const CTrack&, const CPart& p, const COutputChannel&) { return p.length == 0; }},
        {"huge deltas", [](CSeq&, CTrack&, CPart& p, COutputChannel&) { for (CEventRec* e = p.getEvents(); e; e = e->next) e->delta = 0xF0000000u; },
         [](const CSeq&, const CTrack&, const CPart& p, const COutputChannel&) {
             int64_t sum = 0;
             for (const CEventRec* e = p.getEvents(); e; e = e->next) sum += e->delta;
             return sum <= maxSongTick;
         }},
        {"NaN automation", [nan](CSeq&, CTrack&, CPart& p, COutputChannel&) {
             auto& point = static_cast<CAutomationRec&>(*p.getAutomation(2));
             point.value = nan, point.curve = nan;
         },
         [](const CSeq&, const CTrack&, const CPart& p, const COutputChannel&) {
             const auto& point = static_cast<const CAutomationRec&>(*p.getAutomation(2));
             return point.value == 0.0f && point.curve == 0.0f;
         }},
        {"locators far out", [](CSeq& seq, CTrack&, CPart&, COutputChannel&) { seq.currentProg()->leftLocator = INT32_MIN, seq.currentProg()->rightLocator = INT32_MAX; },
         [](const CSeq& seq, const CTrack&, const CPart&, const COutputChannel&) { return seq.currentProg()->leftLocator == 0 && seq.currentProg()->rightLocator == maxSongTick; }},
        {"infinite volume", [inf](CSeq&, CTrack&, CPart&, COutputChannel& strip) { strip.volume = inf, strip.pan = -inf; },
         [](const CSeq&, const CTrack&, const CPart&, const COutputChannel& strip) { return strip.volume == 1.0f && strip.pan == -1.0f; }},
    };
    for (const Row& row : rows) {
        FullProject project;
        CSeq& seq = *sequencerOf(project.engine);
        seq.program = 0;
        CTrack& track = *seq.tracks.getAt(1);
        CPart& part = *seq.currentProg()->songTracks.getAt(1)->parts.getAt(0);
        row.damage(seq, track, part, *project.engine.comps.getAt(5)->firstOutputChannel());

        CQV engine(EngineOptions{false, 1});
        ASSERT_EQ(load(engine, saved(project.engine)), LoadOutcome::loaded) << row.what;
        CSeq& loaded = *sequencerOf(engine);
        const CPart& loadedPart = *loaded.currentProg()->songTracks.getAt(1)->parts.getAt(0);
        EXPECT_TRUE(row.inRange(loaded, *loaded.tracks.getAt(1), loadedPart, *engine.comps.getAt(5)->firstOutputChannel())) << row.what;
        // A short loop over the part's first notes, wrapped a few times.
        loaded.setLoopRange(loadedPart.start, loadedPart.start + 240);
        engine.setLoop(true);
        engine.setPosition(loadedPart.start);
        engine.start();
        for (int32_t k = 0; k < 8; ++k) engine.runCycle(1024);
        engine.stop();
    }
}

// Hand-made files for the reader's rules: a header, then blocks.
struct FileBuilder {
    FileBuilder() { writeString(stream, "QV3"); }
    // The size written is the words' unless `declared` says otherwise.
    void block(const char* tag, std::initializer_list<uint32_t> words, std::optional<int32_t> declared = {}) {
        writeBlockHeader(stream, tag, declared ? static_cast<uint32_t>(*declared) : 4 * static_cast<uint32_t>(words.size()));
        for (uint32_t word : words) stream.writeU32(word);
    }
    std::vector<uint8_t> bytes() { return bytesOf(stream); }
    CMemoryStream stream;
};

TEST(Project, TheReaderSkipsReportsAndRefusesAsItShould) {
    CQV engine(EngineOptions{false, 1});
    Messages messages;
    testgraph::add<CAudioOut>(engine);

    // Not a project: the length word of "QV3" must be 3; nothing changes.
    std::vector<uint8_t> wrong = FileBuilder().bytes();
    wrong[0] = 4;
    EXPECT_EQ(load(engine, wrong, messages.context()), LoadOutcome::notProject);
    EXPECT_EQ(engine.comps.count(), 1);

    // An unknown tag is skipped without a word; a short block is reported and the rest is read.
    FileBuilder file;
    file.block("someday", {1, 2, 3});
    file.block("timeSig", {5}, 4);
    file.block("loop", {0});
    EXPECT_EQ(load(engine, file.bytes(), messages.context()), LoadOutcome::loaded);
    ASSERT_EQ(messages.said.size(), 1u);
    EXPECT_EQ(messages.said[0], "Error: Error reading block: 'timeSig' (4). Trying to read rest of file...");
    EXPECT_EQ(engine.timeSigNum, 5);
    EXPECT_EQ(engine.loop, 0);
    EXPECT_EQ(engine.comps.count(), 0);

    // A negative size ends the load with a new, empty project.
    FileBuilder negative;
    negative.block("bpm", {0x42F00000});
    negative.block("loop", {0}, -2);
    engine.projectPath = "/somewhere/song.qv";
    EXPECT_EQ(load(engine, negative.bytes(), messages.context()), LoadOutcome::failed);
    EXPECT_EQ(messages.said.back(), "Error: Block size error: 'loop' (-2).");
    EXPECT_EQ(engine.bpm.load(), 120.0f);
    EXPECT_TRUE(engine.projectPath.isEmpty());

    // A snap grid outside 0..6 is not taken over; the tempo block's short payload is read as it is.
    CQV source(EngineOptions{false, 1});
    auto* seq = testgraph::add<CSeq>(source);
    seq->snap.gridType = 7;
    for (int32_t tick : {0, 960}) {
        auto* tempo = new CTempoPart();
        tempo->start = tick;
        seq->currentProg()->tempos.add(tempo);
    }
    ASSERT_EQ(load(engine, saved(source)), LoadOutcome::loaded);
    EXPECT_EQ(sequencerOf(engine)->snap.gridType, 3);
    EXPECT_EQ(sequencerOf(engine)->currentProg()->tempos.count(), 2);
}

class ProjectFiles : public ::testing::Test {
protected:
    void SetUp() override {
        dir = std::filesystem::temp_directory_path() / ("vantrell_project_" + std::to_string(std::random_device{}()));
        std::filesystem::create_directories(dir);
    }
    void TearDown() override { std::filesystem::remove_all(dir); }
    std::filesystem::path dir;
};

TEST_F(ProjectFiles, ASaveThatFailsAtAnyByteLeavesTheOldFileWhole) {
    FullProject project;
    const CString path = (dir / "song.qv").c_str();
    ASSERT_TRUE(files::saveProject(project.engine, path));
    const std::vector<uint8_t> old = fileBytes(dir / "song.qv");
    project.engine.bpm = 90.0f;
    const std::vector<uint8_t> next = saved(project.engine);
    ASSERT_NE(old, next);

    // The file size limit makes the disk refuse every byte from the Nth on, as a full disk would.
    const auto previous = std::signal(SIGXFSZ, SIG_IGN);
    rlimit original{};
    getrlimit(RLIMIT_FSIZE, &original);
    int32_t refused = 0;
    for (size_t limit = 0; limit < next.size(); limit += 1 + limit / 4) {
        rlimit capped = original;
        capped.rlim_cur = limit;
        setrlimit(RLIMIT_FSIZE, &capped);
        Messages messages;
        const bool done = files::saveProject(project.engine, path, messages.context());
        setrlimit(RLIMIT_FSIZE, &original);
        ASSERT_FALSE(done) << limit;
        ++refused;
        EXPECT_EQ(messages.said.at(0), "Error: There was an error writing the project. Free up some disk space then try again");
        EXPECT_EQ(fileBytes(dir / "song.qv"), old) << limit;
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir), {}), 1) << "a temporary file was left";
    }
    std::signal(SIGXFSZ, previous);
    EXPECT_GT(refused, 10);
    ASSERT_TRUE(files::saveProject(project.engine, path));
    EXPECT_EQ(fileBytes(dir / "song.qv"), next);
}

TEST_F(ProjectFiles, OpeningNamesTheProjectAndItsAudioFolder) {
    CQV engine(EngineOptions{false, 1});
    Messages messages;
    engine.projectPath = (dir / "Take.qv").c_str();
    EXPECT_STREQ(files::projectAudioFolder(engine, false).c_str(), "");
    EXPECT_STREQ(files::projectAudioFolder(engine, true).c_str(), (dir / "Take_audio").c_str());
    EXPECT_TRUE(std::filesystem::is_directory(dir / "Take_audio"));
    ASSERT_TRUE(files::saveProject(engine, (dir / "Take.qv").c_str()));

    // Moved elsewhere with its folder: the audio folder follows the project.
    std::filesystem::create_directories(dir / "moved");
    std::filesystem::rename(dir / "Take.qv", dir / "moved" / "Take.qv");
    CQV other(EngineOptions{false, 1});
    ASSERT_TRUE(files::openProject(other, (dir / "moved" / "Take.qv").c_str()));
    EXPECT_STREQ(other.projectPath.c_str(), (dir / "moved" / "Take.qv").c_str());
    EXPECT_STREQ(files::projectAudioFolder(other, false).c_str(), (dir / "moved" / "Take_audio").c_str());

    EXPECT_FALSE(files::openProject(other, (dir / "missing.qv").c_str(), messages.context()));
    EXPECT_EQ(messages.said.at(0), "Error: Can't open missing.qv. Not a VNT64 project");
    EXPECT_STREQ(other.projectPath.c_str(), (dir / "moved" / "Take.qv").c_str());
}

}  // namespace
