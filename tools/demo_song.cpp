#include "demo_song.h"

#include <array>
#include <random>

#include "fx/effect.h"
#include "fx/reverb.h"
#include "sound/osc_sound.h"
#include "sound/program.h"
#include "sound/sampler.h"

namespace demo {

namespace {

constexpr int32_t beat = 960;
constexpr int32_t bar = 4 * beat;
constexpr int32_t bars = 20;
constexpr int32_t slowBars = 8;

// A minor, F, C, G: the roots of one bar each, and the triads above them.
constexpr std::array<int32_t, 4> roots = {45, 41, 48, 43};
constexpr std::array<std::array<int32_t, 3>, 4> chords = {{{57, 60, 64}, {57, 60, 65}, {55, 60, 64}, {55, 59, 62}}};
constexpr std::array<int32_t, 7> scale = {69, 71, 72, 74, 76, 77, 79};

struct Envelope {
    float attack, decay, sustain, release;  // times as shares of the envelope's 5 s scale
};

struct Voice {
    float feedback, detune, width, cutoff, q, volume;
    Envelope amp;
};

// What each track sounds like, from the default oscillator sound.
constexpr Voice bassVoice{0.55f, 0.0f, 0.0f, 0.35f, 0.3f, 0.9f, {0.001f, 0.05f, 0.5f, 0.02f}};
constexpr Voice padVoice{0.2f, 0.5f, 0.9f, 0.6f, 0.1f, 0.45f, {0.08f, 0.2f, 0.8f, 0.25f}};
constexpr Voice leadVoice{0.8f, 0.15f, 0.4f, 0.8f, 0.2f, 0.5f, {0.002f, 0.08f, 0.6f, 0.06f}};
constexpr Voice percussionVoice{1.0f, 0.0f, 0.0f, 1.0f, 0.0f, 0.8f, {0.0f, 0.012f, 0.0f, 0.01f}};

class Builder {
public:
    explicit Builder(CQV& engine) : engine_(engine) {
        seq_ = new CSeq(&engine_);
        seq_->createPorts();
        engine_.addComp(seq_);
        out_ = add(new CAudioOut(&engine_));
    }

    // A track with its own sampler, cabled straight to the output or through `effect` first.
    CSongTrack& track(const Voice& voice, CComp* effect = nullptr) {
        CTrack* track = addTrack(*seq_, trackInstrument, nullptr, -1);
        auto* sampler = add(new CSampler(&engine_));
        shape(*sampler, voice);
        sampler->midiCablesIn.add(makeMIDICable(sampler, track->firstOutputPort(), sampler->firstInputPort()));
        if (effect) {
            connect(*sampler, *effect);
            connect(*effect, *out_);
        } else {
            connect(*sampler, *out_);
        }
        return *seq_->currentProg()->songTracks.getAt(seq_->tracks.count() - 1);
    }

    CEffect* reverb(float wet) {
        auto* effect = add(new CEffect(&engine_));
        auto* reverb = new CReverb();
        reverb->setSampleRate(engine_.sampleRate);
        reverb->setBlockSize(engine_.blockSize);
        reverb->setSizeMs(2500);
        reverb->dry = 1.0f;
        reverb->wet = wet;
        reverb->setEnabled(true);
        effect->effectProgram(0)->effects.add(reverb);
        return effect;
    }

    void tempo(int32_t tick, float bpm) {
        auto* part = new CTempoPart();
        part->start = tick;
        part->tempo = bpm;
        seq_->currentProg()->tempos.add(part);
    }

private:
    template <class T>
    T* add(T* comp) {
        comp->createPorts();
        engine_.addComp(comp);
        return comp;
    }

    static void connect(CComp& from, CComp& to) {
        to.audioCablesIn.add(makeAudioCable(&to, from.firstOutputChannel(), to.firstInputChannel()));
    }

    static void shape(CSampler& sampler, const Voice& voice) {
        CSynthProg& prog = *sampler.currentProgram();
        auto& sound = *static_cast<COSCSound*>(prog.layers.getAt(0)->sounds.getAt(0));
        sound.feed1 = voice.feedback;
        sound.detune = voice.detune;
        sound.width = voice.width;
        sound.cutoff = voice.cutoff;
        sound.q = voice.q;
        sound.volume = voice.volume;
        CEnv& amp = sound.envelope[0];
        amp.attack = voice.amp.attack;
        amp.decay = voice.amp.decay;
        amp.sustain = voice.amp.sustain;
        amp.releaseTime = voice.amp.release;
    }

    CQV& engine_;
    CSeq* seq_;
    CAudioOut* out_;
};

void note(CMIDIPart& part, int32_t tick, int32_t key, int32_t duration, int32_t velocity) {
    auto* event = new CMIDIEventRec();
    event->message = packMIDI(0x90, static_cast<uint8_t>(key), static_cast<uint8_t>(velocity));
    event->duration = duration;
    insertEvent(part, tick, event);
}

CMIDIPart& part(CSongTrack& track, int32_t start, int32_t length) {
    auto* part = new CMIDIPart();
    part->start = start;
    part->length = length;
    part->songTrack = &track;
    track.parts.add(part);
    return *part;
}

}  // namespace

DemoSong::DemoSong(double sampleRate) : engine(EngineOptions{false, 1}) {
    registerSoundComponents();
    engine.setSampleRate(sampleRate);
    engine.setLoop(false);

    Builder song(engine);
    CSongTrack& bass = song.track(bassVoice);
    CSongTrack& pad = song.track(padVoice, song.reverb(0.35f));
    CSongTrack& lead = song.track(leadVoice);
    CSongTrack& percussion = song.track(percussionVoice);
    song.tempo(0, 100.0f);
    song.tempo(slowBars * bar, 124.0f);

    CMIDIPart& bassLine = part(bass, 0, bars * bar);
    CMIDIPart& pads = part(pad, 0, bars * bar);
    CMIDIPart& melody = part(lead, 4 * bar, (bars - 4) * bar);
    CMIDIPart& beats = part(percussion, 2 * bar, (bars - 2) * bar);
    std::mt19937 random(20261123);
    for (int32_t b = 0; b < bars; ++b) {
        const auto harmony = static_cast<size_t>(b % 4);
        const int32_t start = b * bar;
        for (int32_t eighth = 0; eighth < 8; ++eighth)
            note(bassLine, start + eighth * beat / 2, roots[harmony] - 12 + (eighth % 4 == 3 ? 12 : 0), beat / 2 - 60,
                 eighth % 2 ? 80 : 110);
        for (int32_t key : chords[harmony]) note(pads, start, key, bar - 40, 70);
        if (b >= 4) {
            for (int32_t step = 0; step < 8; ++step) {
                if (random() % 3 == 0) continue;
                const auto degree = static_cast<size_t>(random() % scale.size());
                note(melody, start - 4 * bar + step * beat / 2, scale[degree], beat / 2 - 30, 90 + static_cast<int32_t>(random() % 30));
            }
        }
        if (b >= 2) {
            for (int32_t step = 0; step < 8; ++step) {
                const int32_t at = start - 2 * bar + step * beat / 2;
                if (step % 2 == 0) note(beats, at, 36, beat / 4, step % 4 == 0 ? 127 : 100);
                note(beats, at + beat / 4, 96, beat / 8, 60 + static_cast<int32_t>(random() % 30));
            }
        }
    }
    lengthTicks_ = (bars + 1) * bar;
}

}  // namespace demo
