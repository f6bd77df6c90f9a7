#include "files/gm_song.h"

#include <algorithm>
#include <map>
#include <vector>

#include "core/stream.h"
#include "engine/io.h"
#include "files/midi.h"
#include "files/soundfont_import.h"
#include "seq/seq.h"
#include "sound/sampler.h"

namespace files {

namespace {

constexpr int32_t drumChannel = 9;
constexpr int32_t drumBank = 128;
constexpr int32_t tailTicks = 2 * 2 * ticksPerQuarter;  // two seconds at 120 BPM
constexpr int32_t channelVolume = 7;
constexpr int32_t channelPan = 10;
constexpr int32_t expression = 11;
constexpr int32_t defaultVolume = 100;  // a General MIDI channel's volume until the file sets one
constexpr int32_t dataEntry = 6, parameterLow = 100, parameterHigh = 101;
constexpr int32_t defaultBendRange = 2;  // semitones, until registered parameter 0 says otherwise
// Sixteen channels at full level pass full scale: each sampler's fader stands at -12 dB.
constexpr float faderPosition = 0.5f;

struct Event {
    int64_t tick;
    uint32_t message;
    int32_t duration;
};

// The events of every imported part, in time order; equal ticks keep the order of the tracks.
std::vector<Event> gatherEvents(const CSeqProg& prog) {
    std::vector<Event> events;
    for (const CSongTrack* songTrack : prog.songTracks) {
        for (const CPart* part : songTrack->parts) {
            int64_t tick = int64_t{part->start} + part->offset;
            for (const CEventRec* e = part->getEvents(); e; e = e->next) {
                tick += e->delta;
                if (const auto* midi = dynamic_cast<const CMIDIEventRec*>(e))
                    events.push_back({tick, midi->message, midi->duration});
            }
        }
    }
    std::stable_sort(events.begin(), events.end(), [](const Event& a, const Event& b) { return a.tick < b.tick; });
    return events;
}

// The preset a channel's bank and program select, falling back as a General MIDI player does: the same
// program in the main bank, then the first preset of the main or drum bank, then the first there is.
const SoundFontPreset* choosePreset(const SoundFontBank& bank, int32_t channel, int32_t bankNumber, int32_t program) {
    if (channel == drumChannel) {
        if (const auto* p = bank.find(drumBank, program)) return p;
        if (const auto* p = bank.find(drumBank, 0)) return p;
        if (!bank.drums.empty()) return &bank.presets[static_cast<size_t>(bank.drums.front())];
    } else {
        if (const auto* p = bank.find(bankNumber, program)) return p;
        if (const auto* p = bank.find(0, program)) return p;
        if (!bank.melodic.empty()) return &bank.presets[static_cast<size_t>(bank.melodic.front())];
    }
    return bank.presets.empty() ? nullptr : &bank.presets.front();
}

// One track and its sampler: the notes of one channel on one preset, and the channel's volume and
// expression as automation of the sampler's fader.
struct VoiceTrack {
    CMIDIPart* part = nullptr;
    CEventRec* tail = nullptr;
    int64_t tailTick = 0;
    CAutomationRec* lastPoint = nullptr;
    int64_t lastPointTick = 0;
    COutputChannel* strip = nullptr;

    // A step of the fader at `tick`; a later step at the same tick replaces it.
    void setFader(int64_t tick, float value) {
        if (lastPoint && tick == lastPointTick) {
            lastPoint->value = value;
            return;
        }
        auto* point = new CAutomationRec();
        point->value = value;
        point->shape = 1;
        point->delta = static_cast<uint32_t>(tick - lastPointTick);
        lastPointTick = tick;
        if (lastPoint) lastPoint->next = point;
        else part->automation[0] = point;
        lastPoint = point;
    }

    void append(int64_t tick, uint32_t message, int32_t duration) {
        auto* event = new CMIDIEventRec();
        event->message = message;
        event->duration = duration;
        event->delta = static_cast<uint32_t>(tick - tailTick);
        tailTick = tick;
        if (tail) tail->next = event;
        else part->events = event;
        tail = event;
    }
};

// A pan controller's value as an offset of -1..1, 64 in the middle.
float panOffset(int32_t controller) {
    const auto offset = static_cast<float>(controller - 64);
    return std::clamp(offset / (controller < 64 ? 64.0f : 63.0f), -1.0f, 1.0f);
}

}  // namespace

SongFrame addSongFrame(CQV& engine, double sampleRate) {
    registerSoundComponents();
    engine.setSampleRate(sampleRate);
    auto* seq = new CSeq(&engine);
    seq->createPorts();
    engine.addComp(seq);
    auto* out = new CAudioOut(&engine);
    out->createPorts();
    engine.addComp(out);
    return {seq, out};
}

GmSong::GmSong(double sampleRate, const CString& midiPath, const SoundFontBank& bank) : engine(EngineOptions{false, 1}) {
    const auto [seq, out] = addSongFrame(engine, sampleRate);
    engine.setLoop(false);

    if (!CFileStream(midiPath, CFileStream::openRead).isOpen()) throw SongError(std::string("can't open ") + midiPath.c_str());
    const MidiImport imported = importMIDI(*seq, nullptr, midiPath, nullptr, 0);
    if (!imported.isMidi) throw SongError(std::string("not a MIDI file: ") + midiPath.c_str());
    damage_ = imported.damage;
    CSeqProg& prog = *seq->currentProg();
    const std::vector<Event> events = gatherEvents(prog);
    // The imported tracks stay, empty: their notes move to the tracks made below.
    for (CSongTrack* songTrack : prog.songTracks) songTrack->parts.deleteAll();

    // Which preset each note plays, by the bank and program of its channel at its tick.
    std::vector<const SoundFontPreset*> presetOf(events.size(), nullptr);
    int32_t programs[16] = {};
    // Registered parameter 0 sets a channel's bend range; a sampler's sounds hold one range, so the last
    // one the file sets on a channel holds for the whole song.
    int32_t parameters[16], bendRanges[16];
    std::fill(std::begin(parameters), std::end(parameters), -1);
    std::fill(std::begin(bendRanges), std::end(bendRanges), defaultBendRange);
    int32_t banks[16] = {};
    // A controller sets a sound's pan outright, which would undo the pan of a preset's zones (the two
    // sides of a stereo piano). As a General MIDI player does, the channel's pan is added to the zones'
    // own instead: the pan the channel has when its first note sounds.
    int32_t pans[16], pansAtFirstNote[16];
    std::fill(std::begin(pans), std::end(pans), 64);
    std::fill(std::begin(pansAtFirstNote), std::end(pansAtFirstNote), -1);
    int64_t end = 0;
    for (size_t i = 0; i < events.size(); ++i) {
        const Event& e = events[i];
        const uint32_t kind = e.message & 0xF0, channel = e.message & 0x0F, data1 = (e.message >> 8) & 0x7F;
        const auto data2 = static_cast<int32_t>((e.message >> 16) & 0x7F);
        if (kind == 0xB0 && data1 == 0) banks[channel] = data2;
        if (kind == 0xB0 && data1 == parameterHigh) parameters[channel] = (data2 << 7) | (parameters[channel] & 0x7F);
        if (kind == 0xB0 && data1 == parameterLow) parameters[channel] = (parameters[channel] & ~0x7F) | data2;
        if (kind == 0xB0 && data1 == dataEntry && parameters[channel] == 0) bendRanges[channel] = std::max(data2, 1);
        if (kind == 0xB0 && data1 == channelPan) pans[channel] = data2;
        if (kind == 0xC0) programs[channel] = static_cast<int32_t>(data1);
        if ((e.message & 0xF0) == 0x90 && (e.message >> 16) != 0) {
            if (pansAtFirstNote[channel] < 0) pansAtFirstNote[channel] = pans[channel];
            presetOf[i] = choosePreset(bank, static_cast<int32_t>(channel), banks[channel], programs[channel]);
            end = std::max(end, e.tick + std::max(e.duration, 1));
            ++notes_;
        }
    }

    // A track and a sampler for each channel and preset, in the order of their first note.
    std::map<std::pair<uint32_t, const SoundFontPreset*>, VoiceTrack> voices;
    std::vector<std::vector<VoiceTrack*>> byChannel(16);
    // Parts end with the last note and the render runs a tail beyond them: the rule a project of this
    // song renders by, so both give the same file.
    const auto partTicks = static_cast<int32_t>(std::min<int64_t>(end, int64_t{1} << 30));
    lengthTicks_ = static_cast<int32_t>(std::min<int64_t>(end + tailTicks, int64_t{1} << 30));
    for (size_t i = 0; i < events.size(); ++i) {
        if (!presetOf[i]) continue;
        const uint32_t channel = events[i].message & 0x0F;
        auto [at, fresh] = voices.try_emplace({channel, presetOf[i]});
        if (!fresh) continue;
        CTrack* track = addTrack(*seq, trackInstrument, nullptr, -1);
        track->channel = -1;
        track->name = presetOf[i]->name.c_str();
        auto* sampler = new CSampler(&engine);
        sampler->createBasePorts();
        engine.addComp(sampler);
        CSynthProg* program = makeSoundFontProgram(*sampler, bank, *presetOf[i]);
        for (CLayer* layer : program->layers)
            for (CSound* sound : layer->sounds) {
                sound->pan = std::clamp(sound->pan + panOffset(pansAtFirstNote[channel]), -1.0f, 1.0f);
                sound->bendRange = bendRanges[channel];
            }
        sampler->programs.add(program);
        sampler->midiCablesIn.add(makeMIDICable(sampler, track->firstOutputPort(), sampler->firstInputPort()));
        out->audioCablesIn.add(makeAudioCable(out, sampler->firstOutputChannel(), out->firstInputChannel()));

        // Channel volume and expression drive the fader rather than the sounds' volume, which holds the
        // zones' attenuation and which a controller would set outright.
        auto* lane = new CSubTrack(laneAutomation);
        lane->slot = 0;
        lane->controller = stripparam::volume;
        lane->target = sampler->firstOutputChannel();
        track->subTracks.add(lane);

        CSongTrack& songTrack = *prog.songTrackOf(track);
        auto* part = new CMIDIPart();
        part->start = 0;
        part->length = partTicks;
        part->songTrack = &songTrack;
        songTrack.parts.add(part);
        at->second.part = part;
        at->second.strip = sampler->firstOutputChannel();
        byChannel[channel].push_back(&at->second);
        ++samplers_;
        presets_.push_back(presetOf[i]);
    }

    // The fader follows the square law, as the controllers' gain does: the product of the two levels.
    int32_t volumes[16], expressions[16];
    std::fill(std::begin(volumes), std::end(volumes), defaultVolume);
    std::fill(std::begin(expressions), std::end(expressions), 127);
    const auto fader = [&](uint32_t channel) {
        return faderPosition * static_cast<float>(volumes[channel]) / 127.0f * static_cast<float>(expressions[channel]) / 127.0f;
    };
    for (uint32_t channel = 0; channel < 16; ++channel)
        for (VoiceTrack* voice : byChannel[channel]) voice->setFader(0, fader(channel));

    // Notes to their own track; what else a channel says, to all of its tracks.
    for (size_t i = 0; i < events.size(); ++i) {
        const Event& e = events[i];
        const uint32_t kind = e.message & 0xF0, channel = e.message & 0x0F, data1 = (e.message >> 8) & 0x7F;
        const auto data2 = static_cast<int32_t>((e.message >> 16) & 0x7F);
        if (presetOf[i]) {
            voices[{channel, presetOf[i]}].append(e.tick, e.message, e.duration);
        } else if (kind == 0xB0 && (data1 == channelVolume || data1 == expression)) {
            (data1 == channelVolume ? volumes : expressions)[channel] = data2;
            for (VoiceTrack* voice : byChannel[channel]) voice->setFader(e.tick, fader(channel));
        } else if (kind == 0xB0 || kind == 0xD0 || kind == 0xE0 || kind == 0xA0) {
            for (VoiceTrack* voice : byChannel[channel]) voice->append(e.tick, e.message, e.duration);
        }
    }

    // The song starts at its faders' first levels, as it does once saved and opened, rather than ramping
    // there.
    for (auto& [key, voice] : voices) {
        voice.strip->volume = static_cast<const CAutomationRec*>(voice.part->automation[0])->value;
        voice.strip->snapRamps();
    }
}

}  // namespace files
