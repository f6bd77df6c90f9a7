// The sampler's factory programs: each is one layer with one oscillator sound, the sound's defaults with
// a few fields changed. Rows read like the "patch.txt" dump, so a sound made by hand in the editor and
// dumped can become a row here.

#include <array>

#include "engine/undo.h"
#include "fx/chorus.h"
#include "fx/delay.h"
#include "fx/phaser.h"
#include "fx/reverb.h"
#include "sound/osc_sound.h"
#include "sound/sampler.h"

namespace {

using Settings = void (*)(COSCSound& so, CSynthProg& prog);

struct FactoryRow {
    const char* name;
    Settings apply;
};

void route(CMod& mod, int32_t entry, int32_t target, float amount) {
    mod.params[entry].index = target;
    mod.params[entry].amount = amount;
}

// The program's reverb send, on, at a size in ms.
void roomReverb(CSynthProg& prog, int32_t sizeMs, int32_t preDelayMs) {
    auto* reverb = static_cast<CReverb*>(prog.reverb());
    reverb->setEnabled(true);
    reverb->setSizeMs(sizeMs);
    reverb->setPreDelay(preDelayMs);
}

// The program's delay send, on, in beats of the tempo: mul / div on both sides.
void beatDelay(CSynthProg& prog, int32_t mul, int32_t div, float feedback) {
    auto* delay = static_cast<CDelay*>(prog.delay());
    delay->setEnabled(true);
    delay->setFeedback(feedback);
    delay->setSync(1);
    delay->setMulLeft(mul);
    delay->setDivLeft(div);
    delay->setMulRight(mul);
    delay->setDivRight(div);
}

// A vibrato on the first LFO (pitch), after a delay in ms.
void vibrato(COSCSound& so, float depth, float rate, int32_t delayMs) {
    route(so.lfo[0], 0, targetPitch, depth);
    so.lfo[0].wave = waveSine;
    so.lfo[0].rate = rate;
    so.lfo[0].delay = delayMs;
}

void ampShape(COSCSound& so, float attack, float decay, float sustain, float release) {
    so.envelope[0].attack = attack;
    so.envelope[0].decay = decay;
    so.envelope[0].sustain = sustain;
    so.envelope[0].releaseTime = release;
}

void cutoffShape(COSCSound& so, float attack, float decay, float sustain) {
    so.envelope[1].attack = attack;
    so.envelope[1].decay = decay;
    so.envelope[1].sustain = sustain;
}

// The third envelope on the phase modulation depth: a bright start that falls to `sustain`.
void modulationShape(COSCSound& so, float decay, float sustain) {
    route(so.envelope[2], 0, targetPhaseMod, 1.0f);
    so.envelope[2].decay = decay;
    so.envelope[2].sustain = sustain;
}

constexpr std::array<FactoryRow, 32> factoryRows{{
    {"DanceBass",
     [](COSCSound& so, CSynthProg&) {
         so.feed1 = 1.0f;
         so.cutoff = 0.9f;
         so.envelope[1].sustain = 0.24f;
         so.envelope[1].decay = 0.15f;
         so.envelope[1].dc = 0.2f;
     }},
    {"80's Bass",
     [](COSCSound& so, CSynthProg&) {
         so.coarse2 = -12.0f;
         so.phaseMod = 1.0f;
         route(so.envelope[2], 0, targetPhaseMod, 1.0f);
         so.envelope[2].sustain = 0.5f;
         so.envelope[2].decay = 0.17f;
         so.envelope[2].dc = 0.2f;
     }},
    {"DeepBass",
     [](COSCSound& so, CSynthProg&) {
         so.coarse = -12.0f;
         so.feed1 = 0.35f;
         so.cutoff = 0.55f;
         so.q = 0.3f;
         so.mode = modeMono;
         so.glide = 30;
         cutoffShape(so, 0.0f, 0.2f, 0.45f);
         so.envelope[0].releaseTime = 0.08f;
     }},
    {"Pads",
     [](COSCSound& so, CSynthProg& prog) {
         so.feed1 = 0.85f;
         so.detune = 0.55f;
         so.width = 0.8f;
         so.cutoff = 0.6f;
         ampShape(so, 0.45f, 0.0f, 1.0f, 0.55f);
         so.envelope[1].initial = 0.3f;
         so.envelope[1].attack = 0.6f;
         route(so.lfo[3], 0, targetCutoff, 0.15f);
         so.lfo[3].rate = 0.3f;
         so.sends[0] = 0.35f;
         roomReverb(prog, 4000, 30);
     }},
    {"Up-right bass",
     [](COSCSound& so, CSynthProg&) {
         so.coarse = -12.0f;
         so.feed1 = 0.2f;
         so.phaseMod = 0.35f;
         so.cutoff = 0.6f;
         modulationShape(so, 0.12f, 0.1f);
         ampShape(so, 0.0f, 0.35f, 0.0f, 0.12f);
         cutoffShape(so, 0.0f, 0.18f, 0.3f);
     }},
    {"Eurosynth",
     [](COSCSound& so, CSynthProg& prog) {
         so.feed1 = 0.95f;
         so.detune = 0.6f;
         so.width = 0.7f;
         so.cutoff = 0.75f;
         so.q = 0.4f;
         cutoffShape(so, 0.0f, 0.25f, 0.35f);
         so.sends[1] = 0.25f;
         beatDelay(prog, 1, 2, 0.35f);
     }},
    {"Digital pluck",
     [](COSCSound& so, CSynthProg& prog) {
         so.phaseMod = 0.8f;
         so.coarse2 = 19.0f;
         modulationShape(so, 0.15f, 0.0f);
         ampShape(so, 0.0f, 0.3f, 0.0f, 0.25f);
         so.sends[0] = 0.2f;
         roomReverb(prog, 2000, 10);
     }},
    {"Phaser bass",
     [](COSCSound& so, CSynthProg&) {
         so.coarse = -12.0f;
         so.feed1 = 0.9f;
         so.cutoff = 0.55f;
         so.q = 0.5f;
         so.mode = modeMono;
         cutoffShape(so, 0.0f, 0.2f, 0.3f);
         auto& phaser = static_cast<CPhaser&>(*so.fx[0]);
         phaser.setEnabled(true);
         phaser.setFrequency(0.4f);
         phaser.setRangeMin(300.0f);
         phaser.setRangeMax(4000.0f);
     }},
    {"Resonant lead",
     [](COSCSound& so, CSynthProg&) {
         so.feed1 = 1.0f;
         so.cutoff = 0.8f;
         so.q = 0.85f;
         so.mode = modeMono;
         so.glide = 60;
         cutoffShape(so, 0.1f, 0.35f, 0.45f);
         vibrato(so, 0.15f, 5.5f, 300);
     }},
    {"Tremolo pad",
     [](COSCSound& so, CSynthProg& prog) {
         so.feed1 = 0.7f;
         so.detune = 0.45f;
         so.width = 0.6f;
         so.cutoff = 0.55f;
         ampShape(so, 0.35f, 0.0f, 1.0f, 0.5f);
         route(so.lfo[1], 0, targetVolume, 0.5f);
         so.lfo[1].wave = waveSine;
         so.lfo[1].rate = 5.0f;
         so.sends[0] = 0.3f;
         roomReverb(prog, 3000, 20);
     }},
    {"Trumpet",
     [](COSCSound& so, CSynthProg&) {
         so.feed1 = 0.75f;
         so.cutoff = 0.7f;
         so.q = 0.2f;
         ampShape(so, 0.08f, 0.0f, 1.0f, 0.12f);
         so.envelope[1].initial = 0.2f;
         cutoffShape(so, 0.12f, 0.3f, 0.7f);
         vibrato(so, 0.12f, 5.0f, 400);
     }},
    {"Digital",
     [](COSCSound& so, CSynthProg&) {
         so.phaseMod = 0.6f;
         so.coarse2 = 24.0f;
         so.feed2 = 0.4f;
         so.oscRing = 0.3f;
         so.cutoff = 0.8f;
         ampShape(so, 0.0f, 0.5f, 0.5f, 0.15f);
     }},
    {"Klang",
     [](COSCSound& so, CSynthProg& prog) {
         so.phaseMod = 0.7f;
         so.coarse2 = 16.0f;
         modulationShape(so, 0.6f, 0.0f);
         ampShape(so, 0.0f, 0.8f, 0.0f, 0.5f);
         so.sends[0] = 0.3f;
         roomReverb(prog, 3000, 20);
     }},
    {"Amplified",
     [](COSCSound& so, CSynthProg&) {
         so.dist = 1;
         so.feed1 = 0.8f;
         so.detune = 0.2f;
         so.cutoff = 0.75f;
         so.q = 0.3f;
         so.volume = 0.7f;
         so.fx[1]->setEnabled(true);
     }},
    {"Scary",
     [](COSCSound& so, CSynthProg& prog) {
         so.detune = 0.9f;
         so.width = 1.0f;
         so.phaseMod = 0.4f;
         so.coarse2 = -11.0f;
         so.feed2 = 0.7f;
         so.modRing = 0.6f;
         ampShape(so, 0.5f, 0.0f, 1.0f, 0.7f);
         route(so.lfo[0], 0, targetPitch, 0.3f);
         so.lfo[0].rate = 0.3f;
         so.sends[0] = 0.5f;
         roomReverb(prog, 6000, 60);
     }},
    {"Lead on!",
     [](COSCSound& so, CSynthProg& prog) {
         so.feed1 = 0.95f;
         so.detune = 0.25f;
         so.width = 0.3f;
         so.cutoff = 0.85f;
         so.q = 0.35f;
         so.mode = modeMono;
         so.glide = 50;
         vibrato(so, 0.1f, 5.5f, 350);
         so.sends[1] = 0.3f;
         beatDelay(prog, 3, 4, 0.3f);
     }},
    {"Arpeggio",
     [](COSCSound& so, CSynthProg& prog) {
         so.feed1 = 0.85f;
         so.cutoff = 0.7f;
         so.q = 0.5f;
         ampShape(so, 0.0f, 0.25f, 0.3f, 0.15f);
         cutoffShape(so, 0.0f, 0.12f, 0.1f);
         so.sends[1] = 0.35f;
         beatDelay(prog, 1, 2, 0.4f);
     }},
    {"Flute",
     [](COSCSound& so, CSynthProg& prog) {
         so.feed1 = 0.15f;
         so.cutoff = 0.6f;
         ampShape(so, 0.12f, 0.0f, 1.0f, 0.15f);
         vibrato(so, 0.1f, 5.0f, 250);
         route(so.lfo[1], 0, targetVolume, 0.1f);
         so.lfo[1].wave = waveSine;
         so.lfo[1].rate = 5.0f;
         so.sends[0] = 0.2f;
         roomReverb(prog, 2000, 20);
     }},
    {"Detune",
     [](COSCSound& so, CSynthProg&) {
         so.feed1 = 0.9f;
         so.detune = 0.85f;
         so.width = 0.9f;
         so.cutoff = 0.75f;
     }},
    {"Massive",
     [](COSCSound& so, CSynthProg&) {
         so.dist = 1;
         so.feed1 = 1.0f;
         so.detune = 0.7f;
         so.width = 1.0f;
         so.phaseMod = 0.3f;
         so.coarse2 = -12.0f;
         so.cutoff = 0.6f;
         so.q = 0.4f;
         so.volume = 0.7f;
         cutoffShape(so, 0.0f, 0.3f, 0.5f);
     }},
    {"Melody",
     [](COSCSound& so, CSynthProg& prog) {
         so.feed1 = 0.4f;
         so.phaseMod = 0.35f;
         so.coarse2 = 12.0f;
         ampShape(so, 0.0f, 0.5f, 0.6f, 0.2f);
         vibrato(so, 0.08f, 5.0f, 300);
         so.sends[0] = 0.25f;
         roomReverb(prog, 2500, 20);
     }},
    {"Old piano",
     [](COSCSound& so, CSynthProg& prog) {
         so.phaseMod = 0.5f;
         so.coarse2 = 12.0f;
         so.feed2 = 0.2f;
         so.detune = 0.15f;
         so.cutoff = 0.75f;
         modulationShape(so, 0.4f, 0.1f);
         ampShape(so, 0.0f, 0.9f, 0.0f, 0.2f);
         cutoffShape(so, 0.0f, 0.6f, 0.4f);
         so.sends[0] = 0.2f;
         roomReverb(prog, 2000, 15);
     }},
    {"Noiser",
     [](COSCSound& so, CSynthProg&) {
         so.filter = filterBand;
         so.cutoff = 0.6f;
         so.q = 0.5f;
         so.feed1 = 1.0f;
         so.oscRing = 0.5f;
         so.feed2 = 1.0f;
         so.modRing = 1.0f;
         so.coarse2 = 31.0f;
         so.phaseMod = 1.0f;
         so.volume = 0.6f;
     }},
    {"Violina",
     [](COSCSound& so, CSynthProg& prog) {
         so.feed1 = 0.8f;
         so.detune = 0.3f;
         so.width = 0.4f;
         so.cutoff = 0.65f;
         ampShape(so, 0.25f, 0.0f, 1.0f, 0.3f);
         vibrato(so, 0.12f, 5.5f, 300);
         so.sends[0] = 0.3f;
         roomReverb(prog, 3000, 25);
     }},
    {"Synth",
     [](COSCSound& so, CSynthProg&) {
         so.feed1 = 0.9f;
         so.detune = 0.45f;
         so.width = 0.3f;
         so.cutoff = 0.7f;
         so.q = 0.3f;
         cutoffShape(so, 0.0f, 0.3f, 0.4f);
     }},
    {"Trance",
     [](COSCSound& so, CSynthProg& prog) {
         so.feed1 = 0.95f;
         so.detune = 0.75f;
         so.width = 1.0f;
         so.cutoff = 0.8f;
         so.q = 0.2f;
         cutoffShape(so, 0.0f, 0.25f, 0.6f);
         so.sends[0] = 0.25f;
         so.sends[1] = 0.3f;
         roomReverb(prog, 3000, 20);
         beatDelay(prog, 3, 4, 0.35f);
     }},
    {"Pulse",
     [](COSCSound& so, CSynthProg&) {
         so.cutoff = 0.9f;
         so.feed1 = 0.7986f;
         so.pmMul = 1;
         so.phase = 1.0f;
         so.oscInv = -1.0f;
     }},
    {"Strings",
     [](COSCSound& so, CSynthProg& prog) {
         so.feed1 = 0.85f;
         so.detune = 0.5f;
         so.width = 0.9f;
         so.cutoff = 0.55f;
         ampShape(so, 0.35f, 0.0f, 1.0f, 0.45f);
         so.envelope[1].initial = 0.5f;
         so.envelope[1].attack = 0.4f;
         so.fx[1]->setEnabled(true);
         so.sends[0] = 0.3f;
         roomReverb(prog, 3500, 30);
     }},
    {"Analog",
     [](COSCSound& so, CSynthProg&) {
         so.feed1 = 0.9f;
         so.detune = 0.35f;
         so.width = 0.2f;
         so.cutoff = 0.6f;
         so.q = 0.45f;
         cutoffShape(so, 0.0f, 0.28f, 0.35f);
         route(so.lfo[0], 0, targetPitch, 0.05f);
         so.lfo[0].rate = 0.5f;
     }},
    {"Sub",
     [](COSCSound& so, CSynthProg& prog) {
         so.cutoff = 0.19f;
         so.q = 0.7f;
         so.dist = 1;
         so.coarse = -12.0f;
         so.feed1 = 0.7987f;
         so.coarse2 = -12.0f;
         so.pmMul = 1;
         so.detune = 0.58f;
         so.phase = 0.64f;
         so.width = 0.23f;
         so.oscInv = 1.0f;
         route(so.envelope[0], 0, targetVolume, 1.0f);
         so.envelope[0].releaseTime = 0.1f;
         route(so.envelope[1], 0, targetCutoff, 1.0f);
         so.envelope[1].decay = 0.22f;
         route(so.envelope[2], 0, targetOscFB, 1.0f);
         so.envelope[2].decay = 0.22f;
         so.envelope[2].sustain = 0.74f;
         so.sends[1] = 0.2f;
         // The row came from a dump, which lists an effect's settings only when it is on.
         auto* delay = static_cast<CDelay*>(prog.delay());
         delay->setEnabled(true);
         delay->wet = 1.0f;
         delay->setFeedback(0.5f);
         delay->setDelayTimeLeft(200.0f);
         delay->setDelayTimeRight(200.0f);
         route(so.vel, 0, targetCutoff, 0.68f);
     }},
    {"Random",
     [](COSCSound& so, CSynthProg&) {
         so.filter = filterBand;
         so.cutoff = 0.4f;
         so.q = 0.89f;
         so.dist = 1;
         so.feed1 = 1.0f;
         so.pmMul = 1;
         so.detune = 0.5f;
         so.width = 0.2f;
         so.oscInv = 1.0f;
         so.lfo[0].wave = waveRandom;
         so.lfo[0].rate = 1.0f;
         so.lfo[0].inv = 1;
         so.lfo[0].sync = 1;
         so.lfo[0].div = 4;
         route(so.lfo[0], 0, targetCutoff, 0.6f);
         route(so.lfo[0], 1, targetPan, 0.44f);
         route(so.envelope[0], 0, targetVolume, 1.0f);
         so.envelope[0].releaseTime = 0.1f;
         route(so.envelope[1], 0, targetCutoff, 1.0f);
         so.sends[1] = 0.66f;
     }},
    {"Sinus",
     [](COSCSound& so, CSynthProg&) {
         so.cutoff = 0.9f;
         so.pmMul = 1;
         so.oscInv = 1.0f;
     }},
}};

}  // namespace

int32_t CSampler::factoryProgram(CUndo* step, int32_t index, CString* name, bool create) {
    if (index < 0) return static_cast<int32_t>(factoryRows.size());
    if (index >= static_cast<int32_t>(factoryRows.size())) return 0;
    const FactoryRow& row = factoryRows[static_cast<size_t>(index)];
    if (name) *name = row.name;
    if (!create) return 0;

    CSynthProg* prog = makeProgram();
    prog->name = row.name;
    CLayer* layer = prog->addLayer();
    prog->selectedLayer = layer;
    auto* sound = new COSCSound();
    layer->addSound(sound);
    row.apply(*sound, *prog);
    prepareSound(*sound);
    if (step) insertItem(*step, prog, programs, -1).kindFlags = undoItemAddProgram;
    else programs.add(prog);
    return 0;
}
