#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "core/temp_folder.h"
#include "engine/undo.h"
#include "files/gm_song.h"
#include "engine/io.h"
#include "files/soundfont_import.h"
#include "seq/seq.h"
#include "sound/sample.h"
#include "sound/sampler.h"
#include "sound/wav_sound.h"

namespace {

const std::filesystem::path fonts = "/usr/share/sounds/sf2";
const std::filesystem::path mmaExamples = "/usr/share/doc/mma/examples";

struct SamplerRig {
    SamplerRig() : engine(EngineOptions{false, 1}) {
        registerSoundComponents();
        engine.setSampleRate(48000.0);
        sampler = new CSampler(&engine);
        sampler->createBasePorts();
        engine.addComp(sampler);
    }
    // The peak of a note held for a third of a second at the first key the program's first sound takes,
    // at `velocity` or the highest that sound takes; some samples swell from silence.
    float play(int32_t program, int32_t velocity = 0) {
        sampler->setProgram(program);
        const CSound& sound = *sampler->currentProgram()->layers.getAt(0)->sounds.getAt(0);
        if (velocity == 0) velocity = std::max(sound.velHigh, 1);
        sampler->postEvent(packMIDI(0x90, static_cast<uint8_t>(sound.keyLow), static_cast<uint8_t>(velocity)));
        float peak = 0.0f;
        for (int32_t block = 0; block < 16; ++block) {
            sampler->beginCycle(1024);
            sampler->processBlock(1024);
            const COutputChannel& out = *sampler->firstOutputChannel();
            for (int32_t i = 0; i < 1024; ++i) peak = std::max({peak, std::abs(out.left()[i]), std::abs(out.right()[i])});
        }
        sampler->postEvent(packMIDI(0xB0, 123, 0));
        sampler->beginCycle(1024);
        sampler->processBlock(1024);
        return peak;
    }
    CQV engine;
    CSampler* sampler;
};

TEST(SoundFontImport, EveryPresetOfTheDebianFontsImportsAndSounds) {
    for (const char* name : {"TimGM6mb.sf2", "FluidR3_GM.sf2"}) {
        SCOPED_TRACE(name);
        const auto path = fonts / name;
        ASSERT_TRUE(std::filesystem::exists(path)) << "scripts/bootstrap installs the SoundFonts";
        files::SoundFontBank bank;
        ASSERT_TRUE(files::readSoundFont(bank, CString(path.c_str())));
        SamplerRig rig;
        const int32_t made = files::importSoundFont(*rig.sampler, CString(path.c_str()), nullptr);
        ASSERT_EQ(made, static_cast<int32_t>(bank.presets.size()));
        ASSERT_EQ(rig.sampler->programs.count(), made);
        for (int32_t p = 0; p < made; ++p) {
            const auto& prog = *static_cast<CSynthProg*>(rig.sampler->programs.getAt(p));
            SCOPED_TRACE(prog.name.c_str());
            EXPECT_STREQ(prog.name.c_str(), bank.presets[static_cast<size_t>(p)].name.c_str());
            ASSERT_FALSE(prog.layers.getAt(0)->sounds.empty());
            // Each sound's clip is the zone's own frames, copied out of the bank, with its root key.
            const auto& sound = static_cast<const CWavSound&>(*prog.layers.getAt(0)->sounds.getAt(0));
            ASSERT_TRUE(sound.canPlay());
            const CSampleClip& clip = *sound.sample[0];
            EXPECT_EQ(clip.bits, 16);
            EXPECT_EQ(clip.channels, 1);
            EXPECT_LT(clip.loopStart, std::max(clip.frames, 1));
            EXPECT_GT(rig.play(p), 0.0f);
        }
        // Clips that zones share are made once.
        EXPECT_LT(rig.sampler->samplePool.count(), [&] {
            int32_t sounds = 0;
            for (CObject* prog : rig.sampler->programs) sounds += static_cast<CSynthProg*>(prog)->layers.getAt(0)->sounds.count();
            return sounds;
        }());
    }
}

TEST(SoundFontImport, DecayFallsEvenlyInDecibels) {
    // A looped constant sample decays 40 dB in 8 s, evenly in decibels as the published envelope does,
    // and holds; the level follows within 1.5 dB, past the envelope's usual 5 s.
    files::SoundFontBank bank;
    bank.sampleData.assign(2000, 16384);
    bank.samples.push_back({"constant", 0, 2000, 100, 1900, 48000, 60, 0, 0, 1});
    files::SoundFontZone zone;
    zone.end = 2000;
    zone.loop = true;
    zone.loopStart = 100;
    zone.loopEnd = 1900;
    zone.decaySeconds = 8.0f;
    zone.sustainLevel = 0.01f;
    files::SoundFontPreset preset;
    preset.zones.push_back({0, 127, 0, 127, 0, {zone}});
    SamplerRig rig;
    rig.sampler->programs.add(files::makeSoundFontProgram(*rig.sampler, bank, preset));
    rig.sampler->setProgram(0);

    constexpr int32_t block = 480, blocks = 100;  // a level every 100 ms, from 10 ms blocks
    std::vector<float> level;
    rig.sampler->postEvent(packMIDI(0x90, 60, 127));
    for (int32_t b = 0; b < blocks * 10; ++b) {
        rig.sampler->beginCycle(block);
        rig.sampler->processBlock(block);
        if (b % 10 == 9) level.push_back(rig.sampler->firstOutputChannel()->left()[block - 1]);
    }
    // Levels in dB below the peak, which the sustain lies 40 dB under; block b ends (b + 1) / 10 s in.
    const auto db = [&](int32_t b) { return 20.0 * std::log10(level[static_cast<size_t>(b)] / level[blocks - 1]) - 40.0; };
    for (int32_t b = 0; b < 79; ++b) EXPECT_NEAR(db(b), -40.0 * (b + 1) / 80.0, 1.5) << "block " << b;
    EXPECT_NEAR(db(90), -40.0, 1e-3) << "the sustain holds";
}

TEST(SoundFontImport, ThroughAnUndoStepAndRefusingWhatIsNoFont) {
    const auto path = fonts / "TimGM6mb.sf2";
    ASSERT_TRUE(std::filesystem::exists(path)) << "scripts/bootstrap installs the SoundFonts";
    SamplerRig rig;
    CUndo* step = beginUndo(rig.engine, "Import", rig.sampler, 0);
    const int32_t made = files::importSoundFont(*rig.sampler, CString(path.c_str()), step);
    ASSERT_GT(made, 100);
    EXPECT_TRUE(rig.sampler->programs.empty());
    EXPECT_TRUE(rig.sampler->samplePool.empty());
    step->apply(rig.engine);
    EXPECT_EQ(rig.sampler->programs.count(), made);
    EXPECT_FALSE(rig.sampler->samplePool.empty());
    // A SoundFont note's level follows the square of its velocity, as SoundFont players make it.
    const float loud = rig.play(0, 127);
    ASSERT_GT(loud, 0.01f);
    EXPECT_NEAR(rig.play(0, 64) / loud, (64.0f / 127.0f) * (64.0f / 127.0f), 1e-3f);
    step->revert(rig.engine);
    EXPECT_TRUE(rig.sampler->programs.empty());
    delete step;

    std::string error;
    EXPECT_EQ(files::importSoundFont(*rig.sampler, CString((mmaExamples / "midi-inc/drum.mid").c_str()), nullptr, &error), -1);
    EXPECT_FALSE(error.empty());
    EXPECT_TRUE(rig.sampler->programs.empty());
}

// A bank whose sample headers all end far past the sample data: each sample can only take the frames up to
// the next one, so the clips made hold about what the intact bank's do, not the block many times over.
TEST(SoundFontImport, SampleEndsPastTheDataCostNoMoreThanTheData) {
    const auto path = fonts / "TimGM6mb.sf2";
    ASSERT_TRUE(std::filesystem::exists(path)) << "scripts/bootstrap installs the SoundFonts";
    std::string font = readBytes(path.string());
    const size_t table = font.rfind("shdr");
    ASSERT_NE(table, std::string::npos);
    const size_t records = (static_cast<uint8_t>(font[table + 4]) | static_cast<uint8_t>(font[table + 5]) << 8 |
                            static_cast<uint8_t>(font[table + 6]) << 16) / 46;
    for (size_t r = 0; r + 1 < records; ++r) font.replace(table + 8 + r * 46 + 24, 4, "\x00\xff\xff\xff", 4);
    TempFolder dir;
    writeBytes(dir.file("far.sf2"), font);
    const auto clipBytes = [](const std::string& file) {
        SamplerRig rig;
        EXPECT_GT(files::importSoundFont(*rig.sampler, CString(file.c_str()), nullptr), 100);
        int64_t bytes = 0;
        for (const CSampleClip* clip : rig.sampler->samplePool) bytes += clip->dataBytes;
        return bytes;
    };
    EXPECT_LT(clipBytes(dir.file("far.sf2")), clipBytes(path.string()) * 3 / 2);
}

class GmRender : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(std::filesystem::exists(fonts / "TimGM6mb.sf2") && std::filesystem::exists(mmaExamples))
            << "scripts/bootstrap installs the SoundFonts and the MIDI files";
        ASSERT_TRUE(files::readSoundFont(bank, CString((fonts / "TimGM6mb.sf2").c_str())));
        dir = std::filesystem::temp_directory_path() / ("vantrell_gm_" + std::to_string(std::random_device{}()));
        std::filesystem::create_directories(dir);
    }
    void TearDown() override { std::filesystem::remove_all(dir); }

    // The song's output, both channels one after the other, block by block from the top.
    std::vector<float> play(const std::filesystem::path& midi) {
        files::GmSong song(48000.0, CString(midi.c_str()), bank);
        CAudioOut* out = nullptr;
        for (CComp* comp : song.engine.comps)
            if (!out) out = dynamic_cast<CAudioOut*>(comp);
        song.engine.setPosition(0);
        song.engine.start();
        std::vector<float> samples;
        const auto blocks = static_cast<int32_t>(song.lengthTicks() / (120.0 * 16.0) * 48000.0 / 1024.0);
        for (int32_t block = 0; block < blocks; ++block) {
            song.engine.runCycle(1024);
            const COutputChannel& channel = *out->firstOutputChannel();
            samples.insert(samples.end(), channel.left(), channel.left() + 1024);
            samples.insert(samples.end(), channel.right(), channel.right() + 1024);
        }
        return samples;
    }

    files::SoundFontBank bank;
    std::filesystem::path dir;
};

// The mean square of a sequence of samples.
double meanSquare(const float* samples, size_t count) {
    double sum = 0.0;
    for (size_t i = 0; i < count; ++i) sum += double{samples[i]} * samples[i];
    return count ? sum / static_cast<double>(count) : 0.0;
}

TEST_F(GmRender, AMidiFileSoundsAsLoudAsTheReferencePlayerAndTwoRendersAreBitIdentical) {
    // Velocity, channel volume and the zones' attenuation together set a song's loudness; the reference
    // player's render of the same song and SoundFont lies within 3 dB.
    const auto song = mmaExamples / "misc/cascade.mid";
    const std::vector<float> first = play(song);
    ASSERT_GT(first.size(), 96000u);
    float peak = 0.0f;
    for (float v : first) peak = std::max(peak, std::abs(v));
    EXPECT_LT(peak, 1.0f) << "the faders leave headroom";

    const auto reference = dir / "reference.wav";
    const std::string command = "fluidsynth -q -n -i -R 0 -C 0 -r 48000 -F '" + reference.string() + "' '" +
                                (fonts / "TimGM6mb.sf2").string() + "' '" + song.string() + "' >/dev/null 2>&1";
    ASSERT_EQ(std::system(command.c_str()), 0);
    CSample theirs;
    ASSERT_TRUE(theirs.open(CString(reference.c_str()))) << theirs.error.c_str();
    std::vector<float> frames(static_cast<size_t>(theirs.frames + 8) * 2);
    theirs.readFrames(frames.data(), static_cast<int32_t>(frames.size()), 0, theirs.frames, 1.0f);
    const double ours = meanSquare(first.data(), first.size());
    ASSERT_GT(ours, 0.0);
    EXPECT_NEAR(10.0 * std::log10(ours / meanSquare(frames.data(), static_cast<size_t>(theirs.frames) * 2)), 0.0, 3.0);

    EXPECT_TRUE(first == play(song)) << "renders differ";
}

TEST_F(GmRender, ProgramChangesChooseThePresetAndChannelTenTheDrums) {
    // Format 0 at 96: piano on channel 1, then program 41 (violin); a snare on channel 10; an unknown
    // program (bank 5) falls back to the main bank. Channel 2 pans hard left, then hard right after its
    // first note, which its sounds don't follow; channel 10 pans right. Channel 1 sets its volume to 64,
    // then its expression to 100.
    const std::vector<uint8_t> track = {
        0x00, 0xB1, 10, 30, 0x00, 0xB1, 10, 0, 0x00, 0xB9, 10, 127, 0x00, 0xB0, 7, 64,
        0x00, 0x90, 60, 100, 0x60, 0x80, 60, 0, 0x00, 0xB0, 11, 100,  // piano
        0x00, 0xC0, 40, 0x00, 0x90, 62, 100,         // violin
        0x00, 0x99, 38, 100, 0x60, 0x89, 38, 0,      // snare
        0x00, 0x80, 62, 0,
        0x00, 0xB1, 0x00, 5, 0x00, 0xC1, 19,         // bank 5, program 19 on channel 2
        0x00, 0x91, 64, 90, 0x00, 0xB1, 10, 127, 0x60, 0x81, 64, 0,
        0x00, 0xFF, 0x2F, 0x00};
    std::vector<uint8_t> file = {'M', 'T', 'h', 'd', 0, 0, 0, 6, 0, 0, 0, 1, 0, 96, 'M', 'T', 'r', 'k', 0, 0, 0,
                                 static_cast<uint8_t>(track.size())};
    file.insert(file.end(), track.begin(), track.end());
    const auto midi = dir / "gm.mid";
    std::ofstream(midi, std::ios::binary).write(reinterpret_cast<const char*>(file.data()), static_cast<std::streamsize>(file.size()));

    files::GmSong song(48000.0, CString(midi.c_str()), bank);
    ASSERT_EQ(song.samplerCount(), 4);
    EXPECT_EQ(song.noteCount(), 4);
    const auto& presets = song.presets();
    EXPECT_EQ(presets[0], bank.find(0, 0));
    EXPECT_EQ(presets[1], bank.find(0, 40));
    EXPECT_EQ(presets[2], bank.find(128, 0));
    EXPECT_EQ(presets[3], bank.find(0, 19));
    // Volume and expression step each sampler's fader, from -12 dB at the General MIDI default of 100.
    const auto fader = [](float volume, float expression) { return 0.5f * volume / 127.0f * expression / 127.0f; };
    const std::vector<std::vector<std::pair<int64_t, float>>> faderSteps = {
        {{0, fader(64, 127)}, {960, fader(64, 100)}}, {{0, fader(64, 127)}, {960, fader(64, 100)}}, {{0, fader(100, 127)}},
        {{0, fader(100, 127)}}};
    const CSeq* seq = nullptr;
    for (CComp* comp : song.engine.comps)
        if (!seq) seq = dynamic_cast<const CSeq*>(comp);
    ASSERT_NE(seq, nullptr);
    const auto stepsOf = [&](const COutputChannel* strip) {
        std::vector<std::pair<int64_t, float>> steps;
        for (CTrack* track : seq->tracks)
            for (const CSubTrack* lane : track->subTracks) {
                if (lane->target != strip) continue;
                int64_t tick = 0;
                const CPart& part = *seq->currentProg()->songTrackOf(track)->parts.getAt(0);
                for (const CEventRec* point = part.automation[lane->slot]; point; point = point->next)
                    steps.emplace_back(tick += point->delta, static_cast<const CAutomationRec*>(point)->value);
            }
        return steps;
    };
    // The channel's pan adds to each zone's own, as the preset alone makes them, and a volume message
    // leaves the zones' attenuation in the sounds.
    const float offsets[] = {0.0f, 0.0f, 1.0f, -1.0f};
    SamplerRig alone;
    int32_t made = 0;
    for (CComp* comp : song.engine.comps) {
        auto* sampler = dynamic_cast<CSampler*>(comp);
        if (!sampler) continue;
        const COutputChannel* strip = sampler->firstOutputChannel();
        EXPECT_EQ(stepsOf(strip), faderSteps[static_cast<size_t>(made)]) << "sampler " << made;
        EXPECT_FLOAT_EQ(strip->volume.load(), faderSteps[static_cast<size_t>(made)].front().second);
        sampler->postEvent(packMIDI(0xB0, 7, 127));
        sampler->beginCycle(1024);
        sampler->processBlock(1024);
        CSynthProg& reference = *files::makeSoundFontProgram(*alone.sampler, bank, *presets[static_cast<size_t>(made)]);
        alone.sampler->programs.add(&reference);
        const CLayer& layer = *static_cast<CSynthProg*>(sampler->programs.getAt(0))->layers.getAt(0);
        ASSERT_EQ(layer.sounds.count(), reference.layers.getAt(0)->sounds.count());
        for (int32_t k = 0; k < layer.sounds.count(); ++k) {
            const CSound& sound = *layer.sounds.getAt(k);
            const CSound& preset = *reference.layers.getAt(0)->sounds.getAt(k);
            EXPECT_EQ(sound.pan, std::clamp(preset.pan + offsets[made], -1.0f, 1.0f)) << "sampler " << made << " sound " << k;
            EXPECT_EQ(sound.volume, preset.volume) << "sampler " << made << " sound " << k;
        }
        ++made;
    }
    EXPECT_EQ(made, 4);

    EXPECT_THROW(files::GmSong(48000.0, CString((fonts / "TimGM6mb.sf2").c_str()), bank), files::SongError);
}

}  // namespace
