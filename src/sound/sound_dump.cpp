#include "sound/sound_dump.h"

#include <memory>

#include "core/stringlist.h"
#include "fx/chorus.h"
#include "fx/delay.h"
#include "fx/phaser.h"
#include "fx/reverb.h"
#include "sound/osc_sound.h"
#include "sound/program.h"

namespace {

std::string fixed(float value) { return floatToString(value).c_str(); }

class Dump {
public:
    // "prefix value f;" when the values differ.
    void set(const std::string& prefix, float value, float initial) {
        if (value != initial) lines.push_back(prefix + fixed(value) + "f;");
    }
    void set(const std::string& prefix, int32_t value, int32_t initial) {
        if (value != initial) lines.push_back(prefix + std::to_string(value) + ";");
    }
    // "prefix(value);" when the values differ.
    void call(const std::string& prefix, float value, float initial) {
        if (value != initial) lines.push_back(prefix + fixed(value) + "f);");
    }
    void call(const std::string& prefix, int32_t value, int32_t initial) {
        if (value != initial) lines.push_back(prefix + std::to_string(value) + ");");
    }

    void routing(const std::string& owner, const CMod& mod, const CMod& initial) {
        for (int32_t k = 0; k < routingCount; ++k) {
            const std::string entry = owner + "params[" + std::to_string(k) + "]";
            set(entry + ".index = ", mod.params[k].index, initial.params[k].index);
            set(entry + ".amount = ", mod.params[k].amount, initial.params[k].amount);
        }
    }

    // The enable line, then dry and wet, for an effect that is on.
    bool effect(const std::string& owner, const CFX& fx, const CFX& initial) {
        if (!fx.enabled) return false;
        lines.push_back(owner + "->setEnabled(1);");
        set(owner + "->dry = ", fx.dry, initial.dry);
        set(owner + "->wet = ", fx.wet, initial.wet);
        return true;
    }

    std::vector<std::string> lines;
};

void soundFields(Dump& dump, const CSound& so, const CSound& initial) {
    dump.set("so->volume = ", so.volume, initial.volume);
    dump.set("so->pan = ", so.pan, initial.pan);
    dump.set("so->filter = ", so.filter, initial.filter);
    dump.set("so->cutoff = ", so.cutoff, initial.cutoff);
    dump.set("so->q = ", so.q, initial.q);
    dump.set("so->dist = ", so.dist, initial.dist);
    dump.set("so->mode = ", int32_t{so.mode}, int32_t{initial.mode});
    dump.set("so->coarse = ", so.coarse, initial.coarse);
    dump.set("so->fine = ", so.fine, initial.fine);
    dump.set("so->glide = ", so.glide, initial.glide);
    const auto* osc = dynamic_cast<const COSCSound*>(&so);
    const auto* oscInitial = dynamic_cast<const COSCSound*>(&initial);
    if (!osc || !oscInitial) return;
    dump.set("so->feed1 = ", osc->feed1, oscInitial->feed1);
    dump.set("so->oscRing = ", osc->oscRing, oscInitial->oscRing);
    dump.set("so->feed2 = ", osc->feed2, oscInitial->feed2);
    dump.set("so->modRing = ", osc->modRing, oscInitial->modRing);
    dump.set("so->coarse2 = ", osc->coarse2, oscInitial->coarse2);
    dump.set("so->phase2 = ", osc->phase2, oscInitial->phase2);
    dump.set("so->phaseMod = ", osc->phaseMod, oscInitial->phaseMod);
    dump.set("so->pmMul = ", osc->pmMul, oscInitial->pmMul);
    dump.set("so->detune = ", osc->detune, oscInitial->detune);
    dump.set("so->width = ", osc->width, oscInitial->width);
    dump.set("so->phase = ", osc->phase, oscInitial->phase);
    dump.set("so->oscInv = ", osc->oscInv, oscInitial->oscInv);
}

void modulators(Dump& dump, const CSound& so, const CSound& initial) {
    for (int32_t i = 0; i < lfoCount; ++i) {
        const std::string lfo = "so->lfo[" + std::to_string(i) + "]->";
        const CLFO& mine = so.lfo[i];
        const CLFO& fresh = initial.lfo[i];
        dump.routing(lfo, mine, fresh);
        dump.set(lfo + "wave = ", mine.wave, fresh.wave);
        dump.set(lfo + "rate = ", mine.rate, fresh.rate);
        dump.set(lfo + "delay = ", mine.delay, fresh.delay);
        dump.set(lfo + "inv = ", mine.inv, fresh.inv);
        dump.set(lfo + "sync = ", mine.sync, fresh.sync);
        dump.set(lfo + "restart = ", mine.restart, fresh.restart);
        dump.set(lfo + "mul = ", mine.mul, fresh.mul);
        dump.set(lfo + "div = ", mine.div, fresh.div);
    }
    for (int32_t i = 0; i < envelopeCount; ++i) {
        const std::string env = "so->envelope[" + std::to_string(i) + "]->";
        const CEnv& mine = so.envelope[i];
        const CEnv& fresh = initial.envelope[i];
        dump.routing(env, mine, fresh);
        dump.set(env + "initial = ", mine.initial, fresh.initial);
        dump.set(env + "attack = ", mine.attack, fresh.attack);
        dump.set(env + "ac = ", mine.ac, fresh.ac);
        dump.set(env + "decay = ", mine.decay, fresh.decay);
        dump.set(env + "dc = ", mine.dc, fresh.dc);
        dump.set(env + "sustain = ", mine.sustain, fresh.sustain);
        dump.set(env + "release = ", mine.releaseTime, fresh.releaseTime);
        dump.set(env + "rc = ", mine.rc, fresh.rc);
    }
    for (int32_t i = 0; i < soundSends; ++i)
        dump.set("so->sends[" + std::to_string(i) + "] = ", so.sends[i], initial.sends[i]);
}

void sendEffects(Dump& dump, const CSynthProg& prog) {
    const CSynthProg initial(64, 48000.0f);
    const std::string fx0 = "so->layer->prog->fx[0]";
    const auto* reverb = dynamic_cast<const CReverb*>(prog.reverb());
    const auto* freshReverb = dynamic_cast<const CReverb*>(initial.reverb());
    if (reverb && freshReverb && dump.effect(fx0, *reverb, *freshReverb)) {
        const std::string cast = "((CReverb*)" + fx0 + ")";
        dump.call(cast + "->setPreDelay(", reverb->preDelay, freshReverb->preDelay);
        dump.call(cast + "->setSize(", static_cast<float>(reverb->size), static_cast<float>(freshReverb->size));
    }
    const std::string fx1 = "so->layer->prog->fx[1]";
    const auto* delay = dynamic_cast<const CDelay*>(prog.delay());
    const auto* freshDelay = dynamic_cast<const CDelay*>(initial.delay());
    if (delay && freshDelay && dump.effect(fx1, *delay, *freshDelay)) {
        const std::string cast = "((CDelay*)" + fx1 + ")";
        dump.call(cast + "->setFeedback(", delay->feedback, freshDelay->feedback);
        dump.call(cast + "->setDelayTimeLeft(", delay->timeLeft, freshDelay->timeLeft);
        dump.call(cast + "->setDelayTimeRight(", delay->timeRight, freshDelay->timeRight);
        dump.call(cast + "->setSync(", delay->sync, freshDelay->sync);
        dump.call(cast + "->setMulLeft(", delay->mulLeft, freshDelay->mulLeft);
        dump.call(cast + "->setMulRight(", delay->mulRight, freshDelay->mulRight);
        dump.call(cast + "->setDivLeft(", delay->divLeft, freshDelay->divLeft);
        dump.call(cast + "->setDivRight(", delay->divRight, freshDelay->divRight);
    }
}

void insertEffects(Dump& dump, const CSound& so, const CSound& initial) {
    const auto* phaser = dynamic_cast<const CPhaser*>(so.fx[0].get());
    const auto* freshPhaser = dynamic_cast<const CPhaser*>(initial.fx[0].get());
    if (phaser && freshPhaser && dump.effect("so->fx[0]", *phaser, *freshPhaser)) {
        const std::string cast = "((CPhaser*)so->fx[0])";
        dump.call(cast + "->setFrequency(", phaser->rate, freshPhaser->rate);
        dump.call(cast + "->setPhase(", phaser->phase, freshPhaser->phase);
        dump.call(cast + "->setRangeMin(", phaser->rangeMin, freshPhaser->rangeMin);
        dump.call(cast + "->setRangeMax(", phaser->rangeMax, freshPhaser->rangeMax);
    }
    const auto* chorus = dynamic_cast<const CChorus*>(so.fx[1].get());
    const auto* freshChorus = dynamic_cast<const CChorus*>(initial.fx[1].get());
    if (chorus && freshChorus && dump.effect("so->fx[1]", *chorus, *freshChorus)) {
        const std::string cast = "((CChorus*)so->fx[1])";
        dump.call(cast + "->setDelay(", chorus->delay, freshChorus->delay);
        dump.call(cast + "->setFrequency(", chorus->rate, freshChorus->rate);
        dump.call(cast + "->setPhase(", chorus->phase, freshChorus->phase);
        dump.call(cast + "->setFeedback(", chorus->feedback, freshChorus->feedback);
    }
}

}  // namespace

std::vector<std::string> soundDumpLines(const CSound& sound) {
    const std::unique_ptr<CSound> initial(createSound(sound.subKind));
    if (!initial) return {};
    Dump dump;
    soundFields(dump, sound, *initial);
    modulators(dump, sound, *initial);
    if (const CSynthProg* prog = sound.program()) sendEffects(dump, *prog);
    insertEffects(dump, sound, *initial);
    dump.routing("so->vel->", sound.vel, initial->vel);
    return dump.lines;
}

bool writeSoundDump(const CSound& sound, const CString& folder) {
    CStringList file;
    for (const std::string& line : soundDumpLines(sound)) file.add(CString(line.c_str()));
    const int32_t length = folder.length();
    const bool separated = length <= 0 || folder.c_str()[length - 1] == '/';
    return file.saveToFile(folder + (separated ? "patch.txt" : "/patch.txt"));
}
