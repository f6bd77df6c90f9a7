#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "core/temp_folder.h"
#include "fx/phaser.h"
#include "fx/reverb.h"
#include "sound/sound_dump.h"
#include "sound_rig.h"
#include "support/rt_probe.h"

using namespace soundtest;

namespace {

constexpr const char* tableNames[] = {
    "DanceBass", "80's Bass", "DeepBass", "Pads",    "Up-right bass", "Eurosynth", "Digital pluck", "Phaser bass",
    "Resonant lead", "Tremolo pad", "Trumpet", "Digital", "Klang", "Amplified", "Scary", "Lead on!",
    "Arpeggio", "Flute", "Detune", "Massive", "Melody", "Old piano", "Noiser", "Violina",
    "Synth", "Trance", "Pulse", "Strings", "Analog", "Sub", "Random", "Sinus"};

COSCSound& onlySound(const CSynthProg& prog) {
    return *static_cast<COSCSound*>(prog.layers.getAt(0)->sounds.getAt(0));
}

// The rig's sampler holding one factory program, current.
void holdFactoryProgram(Rig& rig, int32_t index) {
    rig.sampler->programs.deleteAll();
    rig.sampler->factoryProgram(nullptr, index, nullptr, true);
    rig.sampler->setProgram(0);
}

}  // namespace

TEST(FactoryPrograms, ANewSamplerHoldsTheTableInOrder) {
    Rig rig;
    CSampler fresh(&rig.engine);
    fresh.createPorts();
    ASSERT_EQ(fresh.factoryProgram(nullptr, -1, nullptr, false), 32);
    ASSERT_EQ(fresh.programs.count(), 32);
    EXPECT_EQ(fresh.program, 0);
    for (int32_t i = 0; i < 32; ++i) {
        const auto& prog = *static_cast<CSynthProg*>(fresh.programs.getAt(i));
        EXPECT_EQ(prog.name, CString(tableNames[i])) << i;
        ASSERT_EQ(prog.layers.count(), 1);
        EXPECT_EQ(prog.selectedLayer, prog.layers.getAt(0));
        ASSERT_EQ(prog.layers.getAt(0)->sounds.count(), 1);
        EXPECT_EQ(prog.layers.getAt(0)->sounds.getAt(0)->subKind, soundOscillator);
    }

    CString name = "untouched";
    fresh.factoryProgram(nullptr, 15, &name, false);
    EXPECT_EQ(name, CString("Lead on!"));
    EXPECT_EQ(fresh.programs.count(), 32) << "only the name without create";
    name = "untouched";
    fresh.factoryProgram(nullptr, 32, &name, true);
    EXPECT_EQ(name, CString("untouched"));
    EXPECT_EQ(fresh.programs.count(), 32) << "an index beyond the table does nothing";
}

// The dump of a factory row gives back the row, and writes a file of CR LF lines.
TEST(FactoryPrograms, TheDumpOfSubIsItsRow) {
    Rig rig;
    holdFactoryProgram(rig, 29);
    const std::vector<std::string> expected = {
        "so->cutoff = 0.190000f;",
        "so->q = 0.700000f;",
        "so->dist = 1;",
        "so->coarse = -12.000000f;",
        "so->feed1 = 0.798700f;",
        "so->coarse2 = -12.000000f;",
        "so->detune = 0.580000f;",
        "so->width = 0.230000f;",
        "so->phase = 0.640000f;",
        "so->envelope[1]->decay = 0.220000f;",
        "so->envelope[2]->params[0].index = 6;",
        "so->envelope[2]->params[0].amount = 1.000000f;",
        "so->envelope[2]->decay = 0.220000f;",
        "so->envelope[2]->sustain = 0.740000f;",
        "so->sends[1] = 0.200000f;",
        "so->layer->prog->fx[1]->setEnabled(1);",
        "so->vel->params[0].index = 4;",
        "so->vel->params[0].amount = 0.680000f;",
    };
    const COSCSound& sub = onlySound(rig.prog());
    EXPECT_EQ(soundDumpLines(sub), expected);

    TempFolder folder;
    COSCSound plain;
    const std::string dumped = folder.file("patch.txt");
    const CString where = folder.file("").c_str();
    ASSERT_TRUE(writeSoundDump(plain, where));
    EXPECT_EQ(readBytes(dumped), "") << "a sound at its defaults has no lines";
    ASSERT_TRUE(writeSoundDump(sub, where));
    std::string lines;
    for (const std::string& line : expected) lines += line + "\r\n";
    EXPECT_EQ(readBytes(dumped), lines);

    // Every kind of line: a Random LFO, inserts and both sends on.
    holdFactoryProgram(rig, 30);
    COSCSound& random = onlySound(rig.prog());
    random.fx[0]->setEnabled(true);
    static_cast<CPhaser&>(*random.fx[0]).setRangeMin(400.0f);
    rig.prog().reverb()->setEnabled(true);
    static_cast<CReverb&>(*rig.prog().reverb()).setPreDelay(35);
    const std::vector<std::string> all = soundDumpLines(random);
    const auto at = [&](const std::string& line) { return std::find(all.begin(), all.end(), line) - all.begin(); };
    EXPECT_LT(at("so->filter = 1;"), at("so->lfo[0]->params[0].index = 4;"));
    EXPECT_LT(at("so->lfo[0]->params[1].amount = 0.440000f;"), at("so->lfo[0]->wave = 4;"));
    EXPECT_LT(at("so->lfo[0]->div = 4;"), at("so->sends[1] = 0.660000f;"));
    EXPECT_LT(at("so->layer->prog->fx[0]->setEnabled(1);"), at("((CReverb*)so->layer->prog->fx[0])->setPreDelay(35);"));
    EXPECT_LT(at("((CReverb*)so->layer->prog->fx[0])->setPreDelay(35);"), at("so->fx[0]->setEnabled(1);"));
    EXPECT_LT(at("((CPhaser*)so->fx[0])->setRangeMin(400.000000f);"), std::ssize(all));
    EXPECT_EQ(at("so->lfo[0]->inv = 1;"), std::ssize(all)) << "defaults are left out";
}

// Every program sounds at middle C, stays finite and within a sane level, and stops after its release;
// sixty-four voices of it render without allocating.
TEST(FactoryPrograms, EveryProgramPlaysAndEndsAndRendersWithoutAllocating) {
    for (int32_t index = 0; index < 32; ++index) {
        Rig rig;
        holdFactoryProgram(rig, index);
        rig.render(24000, {{0, noteOn(60, 110)}, {12000, noteOff(60)}});
        double energy = 0.0;
        float peak = 0.0f;
        for (size_t n = 0; n < rig.left.size(); ++n) {
            ASSERT_TRUE(std::isfinite(rig.left[n]) && std::isfinite(rig.right[n])) << tableNames[index];
            energy += double{rig.left[n]} * rig.left[n] + double{rig.right[n]} * rig.right[n];
            peak = std::max({peak, std::fabs(rig.left[n]), std::fabs(rig.right[n])});
        }
        EXPECT_GT(energy / static_cast<double>(rig.left.size()), 1e-5) << tableNames[index];
        EXPECT_LT(peak, 2.0f) << tableNames[index];
        rig.render(48000 * 4);
        EXPECT_EQ(rig.sampler->soundingVoices(), 0) << tableNames[index];

        if (!rtprobe::available()) continue;  // the sanitizer's allocator replaces the probe
        std::vector<std::pair<double, uint32_t>> all;
        for (int32_t k = 0; k < CSampler::voiceCount; ++k) all.emplace_back(k, noteOn(30 + k));
        rig.cycle(all);
        int64_t allocations = 0;
        {
            rtprobe::Scope probe;
            for (int32_t cycle = 0; cycle < 12; ++cycle) {
                rig.engine.beginCycle(rig.block);
                if (cycle == 6)
                    for (int32_t k = 0; k < CSampler::voiceCount; ++k) rig.in->firstOutputPort()->addEvent(k, noteOff(30 + k));
                rig.engine.process(rig.block);
            }
            allocations = probe.allocations();
        }
        EXPECT_EQ(allocations, 0) << tableNames[index];
    }
}
