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

// Factory programs of the sampler, by index.
constexpr int32_t deepBass = 2;
constexpr int32_t pads = 3;
constexpr int32_t leadOn = 15;
constexpr int32_t noiser = 22;

COSCSound& soundOf(CSampler& sampler) {
    return *static_cast<COSCSound*>(sampler.currentProgram()->layers.getAt(0)->sounds.getAt(0));
}

class Builder {
public:
    explicit Builder(CQV& engine) : engine_(engine) {
        seq_ = new CSeq(&engine_);
        seq_->createPorts();
        engine_.addComp(seq_);
        out_ = add(new CAudioOut(&engine_));
    }

    // A track with its own sampler, cabled straight to the output or through `effect` first.
    CSongTrack& track(int32_t program, float volume, CComp* effect = nullptr) {
        CTrack* track = addTrack(*seq_, trackInstrument, nullptr, -1);
        auto* sampler = add(new CSampler(&engine_));
        sampler->setProgram(program);
        soundOf(*sampler).volume = volume;
        lastSampler_ = sampler;
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

    COSCSound& lastSound() const { return soundOf(*lastSampler_); }

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

    CQV& engine_;
    CSeq* seq_;
    CSampler* lastSampler_ = nullptr;
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
    CSongTrack& bass = song.track(deepBass, 0.9f);
    CSongTrack& pad = song.track(pads, 0.4f, song.reverb(0.25f));
    CSongTrack& lead = song.track(leadOn, 0.45f);
    CSongTrack& percussion = song.track(noiser, 0.5f);
    // Short hits: the noise decays to nothing within a sixteenth.
    song.lastSound().envelope[0].decay = 0.012f;
    song.lastSound().envelope[0].sustain = 0.0f;
    song.lastSound().envelope[0].releaseTime = 0.01f;
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
