// The sequencer's cycle: arrangements, song tracks, cursors, loops, note-offs, automation and the
// transport. Runs on whichever thread pulls the sequencer first in a cycle; allocates nothing.

#include <algorithm>
#include <cmath>

#include "engine/engine.h"
#include "seq/seq.h"
#include "seq/timeline.h"

namespace {

constexpr uint32_t statusOf(uint32_t message) { return message & 0xF0; }
constexpr uint32_t velocityOf(uint32_t message) { return (message >> 16) & 0xFF; }
constexpr bool isNoteOnWithVelocity(uint32_t m) { return statusOf(m) == 0x90 && velocityOf(m) != 0; }
constexpr bool isNoteOff(uint32_t m) { return statusOf(m) == 0x80 || (statusOf(m) == 0x90 && velocityOf(m) == 0); }
constexpr int32_t automationStepFrames = 32;

// Saturates, since positions and values read from a file can lie far outside 32 bits; not a number gives 0.
int32_t roundFrame(double value) {
    const double rounded = std::floor(value + 0.5);
    if (!(rounded == rounded)) return 0;
    return static_cast<int32_t>(std::clamp(rounded, static_cast<double>(INT32_MIN), static_cast<double>(INT32_MAX)));
}

uint32_t withChannel(uint32_t message, int32_t channel) {
    return channel >= 0 ? (message & ~0x0Fu) | static_cast<uint32_t>(channel & 0x0F) : message;
}

uint32_t withKeyOffset(uint32_t message, int32_t semitones) {
    const uint32_t key = ((message >> 8) + static_cast<uint32_t>(semitones)) & 0xFF;
    return (message & ~0xFF00u) | (key << 8);
}

// Velocity sensitivity of notes played in through a track: below 100 % presses notes towards 127.
uint32_t withInputSensitivity(uint32_t message, int32_t percent) {
    if (!isNoteOnWithVelocity(message) || percent >= 100) return message;
    const double f = percent * 0.01;
    const double velocity = velocityOf(message);
    const auto scaled = static_cast<int32_t>(1 - std::trunc(((velocity - 1) / 126 * f + (1 - f)) * -126));
    const uint32_t v = static_cast<uint32_t>(std::clamp(scaled, 1, 127));
    return (message & ~0xFF0000u) | (v << 16);
}

// Value of an automation segment at t in 0..1; `curve` bends it.
float curveValue(int32_t shape, float a, float b, double t, float curve) {
    if (shape == 1) return a;
    if (shape > 0) return 0.0f;
    const double k = static_cast<double>(curve) * curve * 63.0 + 1.0;
    if (k == 1.0) return static_cast<float>(a + (b - a) * t);
    const double u = curve < 0 ? k : 1.0 / k;
    return static_cast<float>(a + (b - a) * (1.0 - (u / ((1.0 - u) * t + u) - u) / (1.0 - u)));
}

// One song track's cycle, with the values that stay fixed during it.
class SongTrackCycle {
public:
    SongTrackCycle(CSeq& seq, CSongTrack& songTrack, CSeqProg& prog)
        : seq_(seq), st_(songTrack), prog_(prog), track_(*songTrack.track) {
        const float tempo = seq.engine->bpm.load(std::memory_order_relaxed);
        const float rate = seq.engine->sampleRate;
        tps_ = static_cast<float>(tempo * 16.0f / rate);
        spt_ = static_cast<float>(rate / (tempo * 16.0f));
        out_ = track_.firstOutputPort();
    }

    void run(int32_t frames, int32_t offset);
    void resync(double position, bool chase);
    void endTrack();

private:
    void flushNoteOffs(double frame);
    void blockLoop(int32_t frames, int32_t offset);
    void playEventCursor(CPart& part, CPartCursor& cursor, int32_t n, double lo, double hi, bool wrapPossible);
    void playAutomationCursor(CPart& part, CPartCursor& cursor, int32_t n);
    void sendMIDI(const CMIDIEventRec& event, CPartCursor& cursor, CPart& part, double eventTick);
    void sendAutomation(CSubTrack& lane, double frame, float value, CPartCursor* cursor);
    void syncPart(CPart& part, double position, bool chase);
    int32_t grooveShift(int32_t tick) const;
    bool audibleNow() const;

    CSeq& seq_;
    CSongTrack& st_;
    CSeqProg& prog_;
    CTrack& track_;
    COutputPort* out_;
    double tps_ = 0.0;
    double spt_ = 0.0;
    double position_ = 0.0;
    int32_t done_ = 0;
    int32_t offset_ = 0;
};

bool SongTrackCycle::audibleNow() const {
    if (track_.isMuted()) return false;
    return !prog_.soloActive || track_.isSolo();
}

void SongTrackCycle::flushNoteOffs(double frame) {
    if (!out_) {
        st_.noteOffQueue.reset();
        return;
    }
    for (const CMIDIEvent* e = st_.noteOffQueue.first(); e; e = e->next) out_->addEvent(frame, e->midi);
    st_.noteOffQueue.reset();
}

void SongTrackCycle::endTrack() {
    flushNoteOffs(0.0);
    st_.flags.fetch_and(~songflag::audible, std::memory_order_relaxed);
}

int32_t SongTrackCycle::grooveShift(int32_t tick) const {
    if (track_.grooveStrength == 0.0f) return 0;
    const int32_t steps = std::clamp(track_.grooveSteps, 0, 64);
    const int32_t grid = track_.grooveGrid;
    if (steps < 1 || grid < 1) return 0;
    const int64_t period = int64_t{steps} * grid;
    int64_t base = (tick / period) * period;
    int64_t r = tick - base;
    int64_t target = base;
    for (int32_t i = 0; i < steps; ++i) {
        const auto shift = static_cast<int64_t>(std::floor(grid * track_.grooveValues[i] + 0.5));
        if (r < grid / 2) {
            target = base + shift;
            break;
        }
        if (r < grid) {
            target = base + grid + shift;
            break;
        }
        base += grid;
        r -= grid;
        target = base;
    }
    return static_cast<int32_t>(std::floor((target - tick) * track_.grooveStrength + 0.5));
}

void SongTrackCycle::sendAutomation(CSubTrack& lane, double frame, float value, CPartCursor* cursor) {
    if (lane.laneKind != laneAutomation) return;
    CMIDIQ* port = track_.automationPort();
    if (!port) return;
    const int32_t channel = track_.channel >= 0 ? track_.channel : 0;
    switch (lane.automationType) {
    case automatePitchWheel: {
        const int32_t w = std::clamp(roundFrame(value * 16383.0), 0, 16383);
        if (cursor && roundFrame(cursor->lastValue * 16383.0) == w) return;
        port->addEvent(frame, packMIDI(static_cast<uint8_t>(0xE0 | channel), w & 0x7F, (w >> 7) & 0x7F));
        break;
    }
    case automateController: {
        const int32_t w = std::clamp(roundFrame(value * 127.0), 0, 127);
        if (cursor && roundFrame(cursor->lastValue * 127.0) == w) return;
        port->addEvent(frame, packMIDI(static_cast<uint8_t>(0xB0 | channel), static_cast<uint8_t>(lane.controller & 0x7F),
                                       static_cast<uint8_t>(w)));
        break;
    }
    default:
        if (cursor && value == cursor->lastValue) return;
        port->addEvent(frame, 0, EventType::param, value, lane.controller, lane.target, nullptr);
        break;
    }
    if (cursor) cursor->lastValue = value;
    lane.lastValue = value;
}

void SongTrackCycle::sendMIDI(const CMIDIEventRec& event, CPartCursor& cursor, CPart& part, double eventTick) {
    uint32_t m = withChannel(event.message, track_.channel);
    if (track_.activeTranspose != 0 && (isNoteOnWithVelocity(m) || isNoteOff(m)))
        m = withKeyOffset(m, track_.activeTranspose);
    if (!out_) return;
    out_->addEvent((eventTick - position_) * spt_ + done_ + offset_, m);
    if (isNoteOnWithVelocity(m)) {
        const int64_t noteTick = int64_t{cursor.tick} + event.delta;
        int64_t duration = std::max(event.duration, 1);
        const int64_t partEnd = int64_t{part.start} + part.effectiveLength();
        if (noteTick + duration > partEnd) duration = std::max<int64_t>(partEnd - noteTick, 1);
        // The note-off falls one tick before the end of the note; the groove does not move it.
        const double due = static_cast<double>(noteTick) - position_ + done_ * tps_ + static_cast<double>(duration) - 1.0;
        st_.noteOffQueue.addEvent(due, (m & ~0xF0u) | 0x80u);
    }
    out_->led.value = 1.0f;
}

void SongTrackCycle::playEventCursor(CPart& part, CPartCursor& cursor, int32_t n, double lo, double hi,
                                     bool wrapPossible) {
    if (!cursor.event) return;
    const int32_t shift = grooveShift(static_cast<int32_t>(cursor.tick + cursor.event->delta));
    const int64_t partEnd = int64_t{part.start} + partPlayLength(seq_, part);
    while (cursor.event) {
        const double eventTick = static_cast<double>(cursor.tick) + cursor.event->delta + shift;
        if (roundFrame((eventTick - position_) * spt_) >= n) return;
        const int64_t plainTick = int64_t{cursor.tick} + cursor.event->delta;
        if (plainTick + shift >= partEnd || (wrapPossible && eventTick >= hi && lo != hi)) {
            cursor.event = nullptr;
            return;
        }
        if (cursor.kind == CursorKind::midi) sendMIDI(static_cast<const CMIDIEventRec&>(*cursor.event), cursor, part, eventTick);
        cursor.tick += static_cast<int32_t>(cursor.event->delta);
        cursor.event = cursor.event->next;
    }
}

void SongTrackCycle::playAutomationCursor(CPart& part, CPartCursor& cursor, int32_t n) {
    CSubTrack* lane = cursor.subTrack;
    double q = position_;
    int32_t c = 0;
    const int64_t partEnd = int64_t{part.start} + partPlayLength(seq_, part);
    while (cursor.event && c < n) {
        int32_t step = std::min(n - c, automationStepFrames);
        const int32_t due = roundFrame((cursor.tick + static_cast<double>(cursor.event->delta) - q) * spt_);
        if (due < std::min(n - c, automationStepFrames)) {
            const int64_t pointTick = int64_t{cursor.tick} + cursor.event->delta;
            if (pointTick >= partEnd) {
                cursor.event = nullptr;
                continue;
            }
            step = std::max(due, 0);
            const auto& point = static_cast<const CAutomationRec&>(*cursor.event);
            if (lane && !lane->disabled) sendAutomation(*lane, done_ + c + offset_ + step, point.value, &cursor);
            cursor.fromValue = point.value;
            if (const auto* next = static_cast<const CAutomationRec*>(point.next)) {
                cursor.toValue = next->value;
                cursor.segmentLength = next->delta;
                cursor.toCurve = next->curve;
                cursor.segmentPos = 0.0;
            }
            cursor.tick = static_cast<int32_t>(pointTick);
            cursor.interpolating = 0;
            cursor.event = point.next;
            if (step == 0) continue;
        } else if (q >= partEnd) {
            // A segment towards a point beyond the part's end stops with the part.
            cursor.event = nullptr;
            continue;
        } else if (cursor.interpolating != 2) {
            const auto& point = static_cast<const CAutomationRec&>(*cursor.event);
            const double t = cursor.segmentLength > 0.0 ? cursor.segmentPos / cursor.segmentLength : 0.0;
            if (lane && !lane->disabled)
                sendAutomation(*lane, done_ + c + offset_,
                               curveValue(point.shape, cursor.fromValue, cursor.toValue, t, cursor.toCurve), &cursor);
            cursor.segmentPos += step * tps_;
        }
        q += step * tps_;
        c += step;
    }
}

void SongTrackCycle::syncPart(CPart& part, double position, bool /*chase*/) {
    part.cursorCount = 0;
    CPartCursor& events = part.cursors[part.cursorCount++];
    events = CPartCursor{};
    events.kind = track_.type == trackAudio ? CursorKind::audio
                  : track_.type == trackDrum ? CursorKind::drum
                                             : CursorKind::midi;
    events.event = part.getEvents();
    for (CSubTrack* lane : track_.subTracks) {
        if (lane->laneKind != laneAutomation || lane->slot < 0 || lane->slot >= automationSlots) continue;
        if (part.cursorCount >= maxCursors) break;
        CPartCursor& cursor = part.cursors[part.cursorCount++];
        cursor = CPartCursor{};
        cursor.kind = CursorKind::automation;
        cursor.event = part.getAutomation(static_cast<uint32_t>(lane->slot));
        cursor.subTrack = lane;
        cursor.automationParam = lane->controller;
        cursor.targetObject = lane->target;
    }
    const bool silent = !st_.hasFlag(songflag::audible) || (part.flags.load(std::memory_order_relaxed) & partflag::muted);
    const int64_t partEnd = int64_t{part.start} + partPlayLength(seq_, part);
    if (silent || partEnd <= position) {
        for (int32_t i = 0; i < part.cursorCount; ++i) part.cursors[i].event = nullptr;
        return;
    }
    for (int32_t i = 0; i < part.cursorCount; ++i) {
        CPartCursor& cursor = part.cursors[i];
        cursor.tick = part.start + part.offset;
        CEventRec* e = cursor.event;
        const CEventRec* previous = nullptr;
        while (e) {
            const double eventTick = static_cast<double>(cursor.tick) + e->delta;
            if (eventTick >= part.start && eventTick >= position) break;
            cursor.tick += static_cast<int32_t>(e->delta);
            previous = e;
            e = e->next;
        }
        if (cursor.kind == CursorKind::automation && e && cursor.tick + static_cast<double>(e->delta) > position) {
            if (previous) {
                const auto& from = static_cast<const CAutomationRec&>(*previous);
                const auto& to = static_cast<const CAutomationRec&>(*e);
                cursor.fromValue = from.value;
                cursor.toValue = to.value;
                cursor.toCurve = to.curve;
                cursor.segmentLength = e->delta;
                cursor.segmentPos = position - cursor.tick;
                cursor.interpolating = 0;
            } else {
                cursor.interpolating = 2;
            }
        }
        cursor.event = e;
    }
}

void SongTrackCycle::resync(double position, bool chase) {
    if (audibleNow()) st_.raiseFlags(songflag::audible);
    else st_.flags.fetch_and(~songflag::audible, std::memory_order_relaxed);
    for (CPart* part : st_.parts) syncPart(*part, position, chase);
    for (CSubTrack* lane : track_.subTracks) {
        lane->pending = 0;
        lane->writing = 0;
        lane->previousPoint = nullptr;
        lane->nextPoint = nullptr;
        if (lane->laneKind != laneAutomation || lane->slot < 0 || lane->slot >= automationSlots) continue;
        bool insideSegment = false;
        for (CPart* part : st_.parts) {
            if (part->flags.load(std::memory_order_relaxed) & partflag::muted) continue;
            int64_t tick = int64_t{part->start} + part->offset;
            const int64_t partEnd = int64_t{part->start} + partPlayLength(seq_, *part);
            CEventRec* head = part->getAutomation(static_cast<uint32_t>(lane->slot));
            for (CEventRec* point = head; point; point = point->next) {
                tick += point->delta;
                if (tick < part->start || tick >= partEnd) continue;
                if (tick <= position) lane->previousPoint = point;
                else {
                    if (!lane->nextPoint) lane->nextPoint = point;
                    break;
                }
            }
            for (int32_t i = 0; i < part->cursorCount; ++i) {
                const CPartCursor& cursor = part->cursors[i];
                if (cursor.subTrack == lane && cursor.event && cursor.event != head) insideSegment = true;
            }
        }
        if (insideSegment) continue;
        if (CEventRec* point = lane->previousPoint ? lane->previousPoint : lane->nextPoint) {
            lane->pendingValue = static_cast<CAutomationRec*>(point)->value;
            lane->pending = 1;
        }
    }
}

void SongTrackCycle::blockLoop(int32_t frames, int32_t offset) {
    int32_t left = frames;
    done_ = 0;
    offset_ = offset;
    const double lo = prog_.leftLocator;
    const double hi = prog_.rightLocator;
    const bool wrapPossible = prog_.wrapEnabled && lo != hi;
    while (left > 0) {
        int32_t n = left;
        const bool wraps = wrapPossible && position_ + left * tps_ >= hi;
        if (wraps) n = std::max(static_cast<int32_t>((hi - position_) * spt_), 0);
        for (CPart* part : st_.parts) {
            for (int32_t i = 0; i < part->cursorCount; ++i) {
                CPartCursor& cursor = part->cursors[i];
                if (cursor.kind == CursorKind::automation) playAutomationCursor(*part, cursor, n);
                else playEventCursor(*part, cursor, n, lo, hi, wrapPossible);
            }
        }
        done_ += n;
        left -= n;
        position_ += n * tps_;
        if (!wraps) continue;
        // Nothing may hang over the wrap: due note-offs go out on the last frame before it.
        if (hi > lo) flushNoteOffs(std::max(done_ - 1, 0) + offset_);
        position_ -= hi - lo;
        resync(position_, false);
        if (n == 0 && left > 0 && position_ + left * tps_ >= hi && hi - lo < tps_) break;
    }
}

void SongTrackCycle::run(int32_t frames, int32_t offset) {
    track_.activeTranspose = track_.transpose;
    CMIDIQ* held = track_.automationPort();
    const uint8_t keyChannel = track_.keyChannel & 0x0F;

    if (out_) {
        for (int key = 0; key < 128; ++key) {
            if (track_.keySounding[key] && !track_.keyTarget[key]) {
                track_.keySounding[key] = 0;
                out_->addEvent(offset, packMIDI(static_cast<uint8_t>(0x90 | keyChannel), static_cast<uint8_t>(key), 0));
            } else if (track_.keyTarget[key] && !track_.keySounding[key]) {
                track_.keySounding[key] = track_.keyTarget[key];
                out_->addEvent(offset, packMIDI(static_cast<uint8_t>(0x90 | keyChannel), static_cast<uint8_t>(key),
                                                track_.keyTarget[key]));
            }
        }
        for (const CMIDIEvent* e = st_.auxQueue.first(); e; e = e->next) out_->addEvent(*e);
    }
    st_.auxQueue.reset();

    if (track_.panic.exchange(false, std::memory_order_relaxed)) flushNoteOffs(offset);
    if (held && !track_.isArmed()) {
        for (uint32_t& note : track_.heldEvents) {
            if (note) held->addEvent(offset, note);
            note = 0;
        }
    }

    position_ = st_.position;
    if (prog_.playing.load(std::memory_order_relaxed)) {
        if (st_.takeFlag(songflag::flush)) flushNoteOffs(offset);
        if (st_.takeFlag(songflag::resync)) resync(position_, false);
        if (st_.takeFlag(songflag::chase)) resync(position_, true);
        for (CSubTrack* lane : track_.subTracks) {
            if (!lane->pending) continue;
            lane->pending = 0;
            sendAutomation(*lane, offset, lane->pendingValue, nullptr);
        }
        blockLoop(frames, offset);
    }

    // Note-offs due in this block go out; the rest wait, counted from the next cycle's head.
    st_.eventQueue.reset();
    for (const CMIDIEvent* e = st_.noteOffQueue.first(); e; e = e->next) st_.eventQueue.appendEvent(e->frame, e->midi);
    st_.noteOffQueue.reset();
    for (const CMIDIEvent* e = st_.eventQueue.first(); e; e = e->next) {
        const int32_t f = std::max(roundFrame(e->frame * spt_), 0);
        if (f < frames) {
            if (out_) out_->addEvent(f + offset, e->midi);
        } else {
            st_.noteOffQueue.addEvent(e->frame - frames * tps_, e->midi);
        }
    }
    st_.eventQueue.reset();
}

}  // namespace

void CSeq::beginCycle(int32_t frames) {
    CComp::beginCycle(frames);
    for (CTrack* track : tracks) {
        track->beginCycle(frames);
        CSongTrack* songTrack = currentProg() ? currentProg()->songTrackOf(track) : nullptr;
        if (COutputPort* port = track->firstOutputPort(); port && songTrack) port->freezeItems = &songTrack->freezeItems;
    }
}

void CSeq::setBlockSize(int32_t frames) {
    CComp::setBlockSize(frames);
    for (CTrack* track : tracks) track->blockFrames = frames;
}

void CSeq::process(int32_t frames) {
    CycleGuardScope scope(processGuard);
    if (!scope.entered()) return;
    pullMIDI(frames);
    pullAudio(frames);
    if (playing.load(std::memory_order_relaxed) && engine->recording.load(std::memory_order_relaxed) && !recording)
        recording = 1;

    for (CObject* object : programs) runProg(*static_cast<CSeqProg*>(object), frames);

    const float tempo = engine->bpm.load(std::memory_order_relaxed);
    if (playing.load(std::memory_order_relaxed)) runningTicks += tempo * frames * 16.0 / engine->sampleRate;
    if (playingProg) {
        const float current = engine->bpmTarget.load(std::memory_order_relaxed);
        const float next = followTempo(*playingProg, std::trunc(playingProg->position.load(std::memory_order_relaxed)),
                                       tempo, current, engine->sampleRate, frames);
        if (next != current) engine->bpmTarget.store(next, std::memory_order_relaxed);
    }
}

void CSeq::runProg(CSeqProg& p, int32_t frames) {
    const bool stopping = p.stopRequest.exchange(0, std::memory_order_relaxed) != 0;
    if (stopping) {
        if (options[seqoption::rewindOnStop]) {
            p.position.store(playStart, std::memory_order_relaxed);
            p.previousPosition.store(playStart, std::memory_order_relaxed);
            raise(change::transport);
        }
        p.playing.store(0, std::memory_order_relaxed);
    }
    const bool isPlaying = p.playing.load(std::memory_order_relaxed) != 0;
    if (isPlaying) {
        p.soloActive = std::any_of(p.songTracks.begin(), p.songTracks.end(),
                                   [](const CSongTrack* st) { return st->track->isSolo(); });
        for (CSongTrack* st : p.songTracks) {
            const bool audible = !st->track->isMuted() && (!p.soloActive || st->track->isSolo());
            const bool was = st->hasFlag(songflag::audible);
            if (was && !audible) st->raiseFlags(songflag::resync | songflag::flush);
            else if (!was && audible) st->raiseFlags(songflag::resync);
        }
    }
    const double position = p.position.load(std::memory_order_relaxed);
    p.wrapEnabled = p.loopOn && p.leftLocator < p.rightLocator && p.rightLocator > position;

    const bool resyncAll = (p.flags.load(std::memory_order_relaxed) & songflag::resync) != 0;
    const bool isCurrent = &p == currentProg();
    for (CSongTrack* st : p.songTracks) {
        SongTrackCycle cycle(*this, *st, p);
        if (stopping) cycle.endTrack();
        if (resyncAll) st->raiseFlags(songflag::resync | songflag::flush);
        if (isCurrent && st->track->type == trackInstrument) {
            CTrack& track = *st->track;
            const uint8_t mode = options[seqoption::midiThruMode];
            const bool passes = (mode == 3 && track.monitor == 1) || (mode == 1 && track.isArmed()) ||
                                (mode == 2 && track.recording);
            if (passes && track.firstInputPort()) {
                for (const CMIDIEvent* e = track.firstInputPort()->first(); e; e = e->next) {
                    if (e->type != EventType::midi || e->frame >= frames) continue;
                    uint32_t m = e->midi;
                    if (isNoteOnWithVelocity(m) || isNoteOff(m)) m = withKeyOffset(m, track.transpose);
                    m = withInputSensitivity(withChannel(m, track.channel), track.inputSens);
                    if (COutputPort* out = track.firstOutputPort()) {
                        out->addEvent(e->frame, m);
                        out->led.value = 1.0f;
                    }
                }
            }
        }
        st->position = position;
        cycle.run(frames, 0);
    }

    if (!isPlaying) {
        p.flags.fetch_and(~songflag::resync, std::memory_order_relaxed);
        return;
    }
    const float tempo = engine->bpm.load(std::memory_order_relaxed);
    double next = position + tempo * frames * 16.0 / engine->sampleRate;
    p.previousPosition.store(position, std::memory_order_relaxed);
    p.samplePosition.fetch_add(frames, std::memory_order_relaxed);
    bool wrapped = false;
    if (p.wrapEnabled) {
        while (next > p.rightLocator && p.rightLocator > p.leftLocator) {
            next -= p.rightLocator - p.leftLocator;
            wrapped = true;
        }
    }
    p.position.store(next, std::memory_order_relaxed);
    if (wrapped) {
        if (recording) p.lastPlayPosition = p.leftLocator;
        p.samplePosition.store(static_cast<int32_t>(ticksToSamples(&p, tempo, 0, static_cast<int32_t>(next),
                                                                   static_cast<int32_t>(engine->sampleRate))),
                               std::memory_order_relaxed);
    }
    p.flags.fetch_and(~songflag::resync, std::memory_order_relaxed);
}

void CSeq::startProg(CSeqProg& p) {
    if (p.playing.load(std::memory_order_relaxed)) return;
    p.loopOn = engine->getLoop() ? 1 : 0;
    for (CSongTrack* st : p.songTracks) st->raiseFlags(songflag::resync);
    p.playing.store(1, std::memory_order_relaxed);
}

void CSeq::start() {
    if (playing.load(std::memory_order_relaxed)) return;
    playingProg = currentProg();
    playing.store(1, std::memory_order_relaxed);
    playStart = playingProg ? playingProg->position.load(std::memory_order_relaxed) : 0.0;
    if (playingProg) startProg(*playingProg);
}

void CSeq::stop() {
    if (playing.load(std::memory_order_relaxed)) {
        if (playingProg && playingProg->playing.load(std::memory_order_relaxed))
            playingProg->stopRequest.store(1, std::memory_order_relaxed);
        playing.store(0, std::memory_order_relaxed);
    }
    recording = 0;
    raise(change::transport);
}

void CSeq::setPosition(double ticks) {
    if (recording) return;
    CSeqProg* p = currentProg();
    if (!p) return;
    ticks = std::max(ticks, 0.0);
    p->position.store(ticks, std::memory_order_relaxed);
    p->previousPosition.store(ticks, std::memory_order_relaxed);
    p->samplePosition.store(static_cast<int32_t>(ticksToSamples(p, engine->bpm.load(std::memory_order_relaxed), 0,
                                                                static_cast<int32_t>(ticks),
                                                                static_cast<int32_t>(engine->sampleRate))),
                            std::memory_order_relaxed);
    if (p->playing.load(std::memory_order_relaxed)) p->flags.fetch_or(songflag::resync, std::memory_order_relaxed);
    else raise(change::transport);
}

void CSeq::rewind() {
    const CSeqProg* p = currentProg();
    engine->setPosition(p && p->currentMarker ? p->currentMarker->start : 0.0);
}

void CSeq::setLoop(bool on) {
    if (CSeqProg* p = currentProg()) p->loopOn = on ? 1 : 0;
}

bool CSeq::getLoop() const {
    const CSeqProg* p = currentProg();
    return p && p->loopOn;
}

void CSeq::getLoopRange(int32_t& left, int32_t& right) const {
    const CSeqProg* p = currentProg();
    left = p ? p->leftLocator : 0;
    right = p ? p->rightLocator : ticksPerQuarter;
}

void CSeq::setLoopRange(int32_t a, int32_t b) {
    CSeqProg* p = currentProg();
    if (!p) return;
    p->leftLocator = std::min(a, b);
    p->rightLocator = std::max(a, b);
    raise(change::transport);
}

double CSeq::getProgramTime() const {
    const CSeqProg* p = currentProg();
    return p ? p->position.load(std::memory_order_relaxed) : 0.0;
}

double CSeq::getPosition() const { return getProgramTime(); }

double CSeq::getPosition(int32_t mode) const {
    const CSeqProg* p = currentProg();
    if (!p) return 0.0;
    switch (mode) {
    case 1: return p->previousPosition.load(std::memory_order_relaxed);
    case 2: return p->samplePosition.load(std::memory_order_relaxed);
    case 3: return p->leftLocator;
    case 4: return p->rightLocator;
    default: return 0.0;
    }
}

void CSeq::getTimeSig(int32_t& numerator, int32_t& denominator) const {
    numerator = engine->timeSigNum;
    denominator = engine->timeSigDen;
}

double CSeq::getLength() const {
    int32_t end = 0;
    if (const CSeqProg* p = currentProg())
        for (const CSongTrack* st : p->songTracks)
            for (const CPart* part : st->parts) end = std::max(end, part->end());
    return end;
}
