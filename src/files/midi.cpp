#include "files/midi.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>

#include "core/stream.h"
#include "engine/engine.h"
#include "engine/undo.h"
#include "files/file_bytes.h"
#include "platform/platform.h"
#include "seq/seq.h"

namespace files {

namespace {

constexpr int32_t ourDivision = ticksPerQuarter;
// Positions beyond this are held here: a damaged delta must not overflow the 32-bit event ticks.
constexpr int64_t maxPosition = int64_t{1} << 30;
// Beyond any position a division can reach within `maxPosition`, and far from overflow once scaled.
constexpr int64_t maxFileTicks = int64_t{1} << 46;

// Big-endian reads over one span, each checked against the end; a short read fails and moves nothing.
class ByteCursor {
public:
    explicit ByteCursor(std::span<const uint8_t> bytes) : bytes_(bytes) {}

    size_t position() const { return position_; }
    size_t left() const { return end_ - position_; }
    void limit(size_t end) { end_ = std::min(end, bytes_.size()); }
    void moveTo(size_t position) { position_ = std::min(position, end_); }

    bool u8(uint8_t& value) {
        if (left() < 1) return false;
        value = bytes_[position_++];
        return true;
    }
    bool u16(uint32_t& value) { return bigEndian(2, value); }
    bool u32(uint32_t& value) { return bigEndian(4, value); }
    bool id(char (&text)[5]) {
        if (left() < 4) return false;
        std::memcpy(text, bytes_.data() + position_, 4);
        text[4] = 0;
        position_ += 4;
        return true;
    }
    // A variable-length number: seven bits a byte, most significant first, at most four bytes.
    bool varLength(uint32_t& value) {
        uint32_t result = 0;
        for (int32_t i = 0; i < 4; ++i) {
            uint8_t byte = 0;
            if (!u8(byte)) return false;
            result = (result << 7) | (byte & 0x7Fu);
            if (!(byte & 0x80)) {
                value = result;
                return true;
            }
        }
        value = result;
        return true;
    }
    // The next `length` bytes, or fewer when the end comes first.
    std::span<const uint8_t> take(uint32_t length) {
        const size_t n = std::min<size_t>(length, left());
        const auto piece = bytes_.subspan(position_, n);
        position_ += n;
        return piece;
    }

private:
    bool bigEndian(int32_t count, uint32_t& value) {
        if (left() < static_cast<size_t>(count)) return false;
        uint32_t result = 0;
        for (int32_t i = 0; i < count; ++i) result = (result << 8) | bytes_[position_++];
        value = result;
        return true;
    }

    std::span<const uint8_t> bytes_;
    size_t position_ = 0;
    size_t end_ = bytes_.size();
};

struct OpenNote {
    CMIDIEventRec* event;
    int64_t tick;
};

class Importer {
public:
    Importer(CSeq& seq, CSongTrack* songTrack, CUndo* undo, int32_t startTick, MidiImport& result)
        : seq_(seq), prog_(*seq.currentProg()), undo_(undo), startTick_(startTick), result_(result) {
        if (songTrack && songTrack->parts.empty()) {
            target_ = songTrack->track;
            targetSong_ = songTrack;
        }
        if (songTrack) {
            const int32_t at = seq.tracks.indexOf(songTrack->track);
            if (at >= 0) nextTrackIndex_ = at + 1;
        }
        tempos_.assign(prog_.tempos.begin(), prog_.tempos.end());
        signatures_.assign(prog_.signatures.begin(), prog_.signatures.end());
    }

    void run(std::span<const uint8_t> bytes, const CString& label) {
        ByteCursor in(bytes);
        char id[5] = {};
        uint32_t headerSize = 0, format = 0, tracks = 0, division = 0;
        if (!in.id(id) || std::strcmp(id, "MThd") != 0) {
            platform::debugLine((CString("Not a MIDI file ") + label).c_str());
            return;
        }
        result_.isMidi = true;
        if (!in.u32(headerSize) || !in.u16(format) || !in.u16(tracks) || !in.u16(division)) {
            result_.damage.add("the file ends inside its header: nothing could be read");
            return;
        }
        result_.format = static_cast<int32_t>(format);
        result_.division = static_cast<int32_t>(division);
        setDivision(division);
        // A longer header keeps its extra bytes to itself.
        if (headerSize > 6) in.moveTo(8 + size_t{headerSize});

        bool intact = true;
        uint32_t trackChunks = 0;
        while (in.left() >= 8) {
            uint32_t size = 0;
            in.id(id);
            in.u32(size);
            const size_t end = in.position() + size;
            const bool isTrack = std::strcmp(id, "MTrk") == 0;
            trackChunks += isTrack ? 1 : 0;
            if (end > bytes.size()) {
                intact = false;
                result_.damage.add(std::string(isTrack ? "track " + std::to_string(trackChunks) : "chunk") + " claims " +
                                   std::to_string(size) + " bytes, but the file ends " +
                                   std::to_string(end - bytes.size()) + " bytes before that: it is cut short");
            }
            if (isTrack) {
                in.limit(end);
                const bool fine = readTrack(in);
                in.limit(bytes.size());
                endChunk();
                if (!fine) {
                    platform::debugLine("Invalid file format (3)");
                    result_.damage.add("track " + std::to_string(trackChunks) + " is damaged at byte " +
                                       std::to_string(in.position()) + ": it and the rest of the file are lost");
                    intact = false;
                    break;
                }
            }
            in.moveTo(end);
        }
        if (intact && trackChunks < tracks)
            result_.damage.add("the header names " + std::to_string(tracks) + " tracks, the file holds " +
                               std::to_string(trackChunks));
        result_.complete = intact;
        assignChannels();
    }

private:
    // Ticks of the file to ours. SMPTE divisions count frames of a second; they are read at 120 BPM.
    void setDivision(uint32_t division) {
        if (division & 0x8000) {
            const int32_t framesPerSecond = -static_cast<int8_t>(division >> 8);
            const int32_t ticksPerFrame = static_cast<int32_t>(division & 0xFF);
            fileDivision_ = std::max(1, framesPerSecond * ticksPerFrame / 2);
        } else {
            fileDivision_ = division == 0 ? ourDivision : static_cast<int32_t>(division);
        }
    }

    // False on the one fatal damage: a data byte where a status must be.
    bool readTrack(ByteCursor& in) {
        // Positions are converted from the file's absolute ticks, so that rounding never builds up along
        // a track whose division does not divide ours.
        int64_t fileTicks = 0;
        uint8_t running = 0;
        while (in.left() > 0) {
            uint32_t delta = 0;
            if (!in.varLength(delta)) return true;
            fileTicks = std::min(fileTicks + delta, maxFileTicks);
            const int64_t position = std::min((fileTicks * ourDivision + fileDivision_ / 2) / fileDivision_, maxPosition);

            uint8_t byte = 0;
            if (!in.u8(byte)) return true;
            if (byte == 0xFF) {
                if (!readMeta(in, position)) return true;
                continue;
            }
            uint8_t data1 = 0;
            if (byte >= 0x80) {
                if (byte == 0xF0 || byte == 0xF7) {
                    uint32_t length = 0;
                    if (!in.varLength(length)) return true;
                    in.take(length);
                    continue;
                }
                // Other system messages have no place in a file and no length to skip them by.
                if (byte > 0xF0) return false;
                running = byte;
                if (!in.u8(data1)) return true;
            } else {
                if (running == 0) return false;
                data1 = byte;
            }
            if (!channelEvent(in, running, data1 & 0x7F, position)) return true;
        }
        return true;
    }

    // False when the chunk ends inside the event or at its end-of-track mark.
    bool readMeta(ByteCursor& in, int64_t position) {
        uint8_t type = 0;
        uint32_t length = 0;
        if (!in.u8(type) || !in.varLength(length)) return false;
        const std::span<const uint8_t> data = in.take(length);
        if (data.size() < length) return false;
        const auto at = static_cast<int32_t>(position);
        switch (type) {
        case 47:
            return false;
        case 3:
            ensureTarget();
            target_->name = CString(reinterpret_cast<const char*>(data.data()), static_cast<int32_t>(data.size()));
            break;
        case 32:
            ensureTarget();
            if (!data.empty()) target_->channel = static_cast<int16_t>(data[0] & 0x0F);
            break;
        case 88:
            if (data.size() >= 2) addSignature(at, data[0], 1 << std::min<int32_t>(data[1], 10));
            break;
        case 81:
            if (data.size() >= 3) {
                const uint32_t us = (uint32_t{data[0]} << 16) | (uint32_t{data[1]} << 8) | data[2];
                if (us > 0) addTempo(at, std::floor(60000000.0 / us + 0.5));
            }
            break;
        default:
            break;
        }
        return true;
    }

    bool channelEvent(ByteCursor& in, uint8_t status, uint8_t data1, int64_t position) {
        const uint8_t kind = status & 0xF0;
        const uint8_t channel = status & 0x0F;
        uint8_t data2 = 0;
        if (kind != 0xC0 && kind != 0xD0) {
            if (!in.u8(data2)) return false;
            data2 &= 0x7F;
        }
        ensurePart();
        if (kind == 0x80 || (kind == 0x90 && data2 == 0)) {
            closeNote(channel, data1, position);
        } else {
            auto* event = new CMIDIEventRec();
            event->message = packMIDI(status, data1, data2);
            event->duration = kind == 0x90 ? -1 : 240;
            append(event, position);
            if (kind == 0x90) open_[channel * 128u + data1].push_back({event, position});
        }
        const int64_t length = (std::max<int64_t>(part_->length, position) + ourDivision - 1) / ourDivision * ourDivision;
        part_->length = static_cast<int32_t>(std::min(length, maxPosition));
        return true;
    }

    void closeNote(uint8_t channel, uint8_t key, int64_t position) {
        auto& waiting = open_[channel * 128u + key];
        if (waiting.empty()) return;
        const OpenNote note = waiting.front();
        waiting.erase(waiting.begin());
        note.event->duration = static_cast<int32_t>(position - note.tick);
    }

    void append(CMIDIEventRec* event, int64_t position) {
        event->delta = static_cast<uint32_t>(position - tailTick_);
        tailTick_ = position;
        if (tail_) tail_->next = event;
        else part_->events = event;
        tail_ = event;
        partHasEvents_ = true;
        channelsOf_[static_cast<size_t>(result_.newParts.size() - 1)] |= 1u << (event->message & 0x0F);
    }

    void ensureTarget() {
        if (target_) return;
        target_ = addTrack(seq_, trackInstrument, undo_, nextTrackIndex_);
        target_->channel = -1;
        if (nextTrackIndex_ >= 0) ++nextTrackIndex_;
        targetSong_ = songTrackOf(*target_);
        result_.newTracks.push_back(target_);
    }

    // The new track's place in the current arrangement, which an undo step holds until it runs.
    CSongTrack* songTrackOf(const CTrack& track) const {
        if (!undo_) return prog_.songTrackOf(&track);
        for (CUndoItem* item : undo_->items) {
            auto* songTrack = dynamic_cast<CSongTrack*>(item->object);
            if (songTrack && songTrack->track == &track && songTrack->prog == &prog_) return songTrack;
        }
        return nullptr;
    }

    void ensurePart() {
        if (part_) return;
        ensureTarget();
        part_ = new CMIDIPart();
        part_->start = startTick_;
        part_->length = 0;
        part_->songTrack = targetSong_;
        part_->flags.fetch_or(partflag::selected, std::memory_order_relaxed);
        if (undo_) insertItem(*undo_, part_, targetSong_->parts, -1);
        else targetSong_->parts.add(part_);
        result_.newParts.push_back(part_);
        channelsOf_.push_back(0);
        tail_ = nullptr;
        tailTick_ = 0;
        partHasEvents_ = false;
    }

    // A part with events is done; an empty one goes on with the next chunk, and so does its track.
    void endChunk() {
        for (auto& waiting : open_) waiting.clear();
        if (part_ && partHasEvents_) {
            target_ = nullptr;
            targetSong_ = nullptr;
            part_ = nullptr;
        }
        tail_ = nullptr;
        tailTick_ = 0;
    }

    // Enters a timeline part behind the others at its tick, unless the one before is the same.
    template <class Part, class Same>
    void enterTimeline(std::vector<Part*>& mirror, TList<Part>& list, Part* part, Same same) {
        const auto at = std::upper_bound(mirror.begin(), mirror.end(), part->start,
                                         [](int32_t tick, const Part* p) { return tick < p->start; });
        if (at != mirror.begin() && (*(at - 1))->start == part->start && same(**(at - 1))) {
            delete part;
            return;
        }
        const auto index = static_cast<int32_t>(at - mirror.begin());
        if (undo_) insertItem(*undo_, part, list, index);
        else list.insert(index, part);
        mirror.insert(at, part);
    }

    void addTempo(int32_t tick, double bpm) {
        auto* part = new CTempoPart();
        part->start = tick;
        part->tempo = static_cast<float>(bpm);
        enterTimeline(tempos_, prog_.tempos, part, [&](const CTempoPart& p) { return p.tempo == part->tempo; });
    }

    void addSignature(int32_t tick, int32_t numerator, int32_t denominator) {
        auto* part = new CTimesigPart();
        part->start = tick;
        part->numerator = numerator;
        part->denominator = denominator;
        enterTimeline(signatures_, prog_.signatures, part, [&](const CTimesigPart& p) {
            return p.numerator == numerator && p.denominator == denominator;
        });
    }

    // With several tracks made, a track whose events all share one channel plays on that channel.
    void assignChannels() {
        if (result_.newTracks.size() < 2) return;
        for (CTrack* track : result_.newTracks) {
            uint32_t channels = 0;
            for (size_t i = 0; i < result_.newParts.size(); ++i)
                if (result_.newParts[i]->songTrack && result_.newParts[i]->songTrack->track == track) channels |= channelsOf_[i];
            track->channel = static_cast<int16_t>(std::has_single_bit(channels) ? std::countr_zero(channels) : -1);
        }
    }

    CSeq& seq_;
    CSeqProg& prog_;
    CUndo* undo_;
    int32_t startTick_;
    MidiImport& result_;
    int32_t fileDivision_ = ourDivision;
    int32_t nextTrackIndex_ = -1;
    CTrack* target_ = nullptr;
    CSongTrack* targetSong_ = nullptr;
    CMIDIPart* part_ = nullptr;
    CMIDIEventRec* tail_ = nullptr;
    int64_t tailTick_ = 0;
    bool partHasEvents_ = false;
    std::vector<uint32_t> channelsOf_;  // channel bits of each new part
    std::array<std::vector<OpenNote>, 16 * 128> open_;
    std::vector<CTempoPart*> tempos_;
    std::vector<CTimesigPart*> signatures_;
};

// ---- export

class ByteWriter {
public:
    void u8(uint32_t value) { bytes.push_back(static_cast<uint8_t>(value)); }
    void u16(uint32_t value) {
        u8(value >> 8);
        u8(value);
    }
    void u32(uint32_t value) {
        u16(value >> 16);
        u16(value);
    }
    void text(const char* id) {
        for (int32_t i = 0; i < 4; ++i) u8(static_cast<uint8_t>(id[i]));
    }
    void varLength(uint32_t value) {
        value &= 0x0FFFFFFF;
        uint8_t groups[4];
        int32_t n = 0;
        do {
            groups[n++] = static_cast<uint8_t>(value & 0x7F);
            value >>= 7;
        } while (value);
        while (n > 1) u8(groups[--n] | 0x80);
        u8(groups[0]);
    }
    void patch32(size_t at, uint32_t value) {
        for (int32_t i = 0; i < 4; ++i) bytes[at + static_cast<size_t>(i)] = static_cast<uint8_t>(value >> (24 - 8 * i));
    }

    std::vector<uint8_t> bytes;
};

class TrackChunk {
public:
    explicit TrackChunk(ByteWriter& out) : out_(out) {
        out_.text("MTrk");
        sizeAt_ = out_.bytes.size();
        out_.u32(0);
    }
    void meta(uint32_t delta, uint8_t type, std::span<const uint8_t> data) {
        out_.varLength(delta);
        out_.u8(0xFF);
        out_.u8(type);
        out_.varLength(static_cast<uint32_t>(data.size()));
        for (uint8_t b : data) out_.u8(b);
        running_ = 0;
    }
    void event(uint32_t delta, uint32_t message) {
        const uint8_t status = message & 0xFF;
        out_.varLength(delta);
        if (status != running_) out_.u8(status);
        running_ = status;
        out_.u8((message >> 8) & 0x7F);
        if ((status & 0xF0) != 0xC0 && (status & 0xF0) != 0xD0) out_.u8((message >> 16) & 0x7F);
    }
    void finish() {
        meta(0, 0x2F, {});
        out_.patch32(sizeAt_, static_cast<uint32_t>(out_.bytes.size() - sizeAt_ - 4));
    }

private:
    ByteWriter& out_;
    size_t sizeAt_;
    uint8_t running_ = 0;
};

struct Entry {
    int64_t tick;
    uint32_t message;
};

class Exporter {
public:
    explicit Exporter(const CSeq& seq) : seq_(seq), prog_(*seq.currentProg()) {
        to_ = static_cast<int64_t>(seq.getLength());
        if (prog_.loopOn && prog_.leftLocator < prog_.rightLocator) {
            from_ = prog_.leftLocator;
            to_ = prog_.rightLocator;
        }
        soloActive_ = std::any_of(seq.tracks.begin(), seq.tracks.end(), [](const CTrack* t) { return t->isSolo(); });
    }

    std::vector<uint8_t> run() {
        out_.text("MThd");
        out_.u32(6);
        out_.u16(1);
        out_.u16(0);
        out_.u16(ourDivision);
        uint32_t trackCount = 0;
        tempoTrack();
        signatureTrack();
        trackCount += 2;
        for (const CSongTrack* songTrack : prog_.songTracks) {
            const CTrack& track = *songTrack->track;
            if (track.isMuted() || (soloActive_ && !track.isSolo())) continue;
            if (track.type != trackInstrument && track.type != trackDrum) continue;
            songTrackChunk(*songTrack);
            ++trackCount;
        }
        out_.bytes[10] = static_cast<uint8_t>(trackCount >> 8);
        out_.bytes[11] = static_cast<uint8_t>(trackCount);
        return std::move(out_.bytes);
    }

private:
    void tempoTrack() {
        TrackChunk chunk(out_);
        const auto tempoBytes = [](double bpm) {
            const uint32_t us = 60000000u / static_cast<uint32_t>(std::clamp(std::trunc(bpm), 1.0, 60000000.0));
            return std::array<uint8_t, 3>{static_cast<uint8_t>(us >> 16), static_cast<uint8_t>(us >> 8), static_cast<uint8_t>(us)};
        };
        if (prog_.tempos.empty()) {
            chunk.meta(0, 0x51, tempoBytes(seq_.engine ? seq_.engine->bpm.load() : 120.0));
        } else {
            int32_t previous = 0;
            for (const CTempoPart* part : prog_.tempos) {
                chunk.meta(static_cast<uint32_t>(std::max(part->start - previous, 0)), 0x51, tempoBytes(part->tempo));
                previous = std::max(part->start, previous);
            }
        }
        chunk.finish();
    }

    void signatureTrack() {
        TrackChunk chunk(out_);
        const auto signatureBytes = [](int32_t numerator, int32_t denominator) {
            const int32_t power = denominator > 0 ? std::bit_width(static_cast<uint32_t>(denominator)) - 1 : 2;
            return std::array<uint8_t, 4>{static_cast<uint8_t>(numerator), static_cast<uint8_t>(power), 24, 8};
        };
        if (prog_.signatures.empty()) {
            const int32_t numerator = seq_.engine ? seq_.engine->timeSigNum : 4;
            const int32_t denominator = seq_.engine ? seq_.engine->timeSigDen : 4;
            chunk.meta(0, 0x58, signatureBytes(numerator, denominator));
        } else {
            int32_t previous = 0;
            for (const CTimesigPart* part : prog_.signatures) {
                chunk.meta(static_cast<uint32_t>(std::max(part->start - previous, 0)), 0x58,
                           signatureBytes(part->numerator, part->denominator));
                previous = std::max(part->start, previous);
            }
        }
        chunk.finish();
    }

    void songTrackChunk(const CSongTrack& songTrack) {
        const CTrack& track = *songTrack.track;
        TrackChunk chunk(out_);
        if (track.channel >= 0) chunk.meta(0, 0x20, std::array<uint8_t, 1>{static_cast<uint8_t>(track.channel)});
        const CString name = track.name;
        chunk.meta(0, 0x03, {reinterpret_cast<const uint8_t*>(name.c_str()), static_cast<size_t>(name.length())});

        std::vector<Entry> entries;
        for (const CPart* part : songTrack.parts) {
            if (part->flags.load(std::memory_order_relaxed) & partflag::muted) continue;
            gather(track, *part, entries);
        }
        std::stable_sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) { return a.tick < b.tick; });
        int64_t last = 0;
        for (const Entry& entry : entries) {
            chunk.event(static_cast<uint32_t>(entry.tick - last), entry.message);
            last = entry.tick;
        }
        chunk.finish();
    }

    void gather(const CTrack& track, const CPart& part, std::vector<Entry>& entries) const {
        const int64_t partEnd = part.end();
        int64_t tick = int64_t{part.start} + part.offset;
        for (const CEventRec* e = part.getEvents(); e; e = e->next) {
            tick += e->delta;
            if (tick < part.start || tick >= partEnd || tick < from_ || tick >= to_) continue;
            uint32_t message = 0;
            int32_t duration = 0;
            if (const auto* midi = dynamic_cast<const CMIDIEventRec*>(e); midi && track.type == trackInstrument) {
                message = midi->message;
                duration = midi->duration;
                if (track.channel >= 0) message = (message & ~0x0Fu) | static_cast<uint32_t>(track.channel & 0x0F);
                if (!midi->isNoteOn()) {
                    const uint8_t status = message & 0xFF;
                    if (status >= 0x80 && status < 0xF0) entries.push_back({tick - from_, message});
                    continue;
                }
            } else if (const auto* drum = dynamic_cast<const CDrumEventRec*>(e); drum && track.type == trackDrum) {
                const auto key = static_cast<uint8_t>(std::clamp(drum->pad + 36, 0, 127));
                const auto velocity = static_cast<uint8_t>(std::clamp(static_cast<int32_t>(drum->velocity * 126.0f + 1.0f), 1, 127));
                const auto channel = static_cast<uint8_t>(track.channel >= 0 ? track.channel & 0x0F : 0);
                message = packMIDI(static_cast<uint8_t>(0x90 | channel), key, velocity);
                duration = drum->duration;
            } else {
                continue;
            }
            // An open note (-1) plays for at least one tick, as playback holds it.
            const int64_t off = std::min({tick + std::max(duration, 1), partEnd, to_});
            entries.push_back({tick - from_, message});
            entries.push_back({off - from_, message & 0xFFFFu});
        }
    }

    const CSeq& seq_;
    const CSeqProg& prog_;
    ByteWriter out_;
    int64_t from_ = 0;
    int64_t to_ = 0;
    bool soloActive_ = false;
};

}  // namespace

MidiImport importMIDI(CSeq& seq, CSongTrack* songTrack, std::span<const uint8_t> bytes, CUndo* undo,
                      int32_t startTick, const CString& label) {
    MidiImport result;
    if (!seq.currentProg()) return result;
    Importer(seq, songTrack, undo, startTick, result).run(bytes, label);
    return result;
}

MidiImport importMIDI(CSeq& seq, CSongTrack* songTrack, const CString& path, CUndo* undo, int32_t startTick) {
    return importMIDI(seq, songTrack, readFileBytes(path, "MThd"), undo, startTick, path);
}

std::vector<uint8_t> exportMIDIBytes(const CSeq& seq) {
    if (!seq.currentProg()) return {};
    return Exporter(seq).run();
}

bool exportMIDI(const CSeq& seq, const CString& path) {
    const std::vector<uint8_t> bytes = exportMIDIBytes(seq);
    if (bytes.empty()) return false;
    CAtomicFileStream file(path);
    if (!file.isOpen()) return false;
    file.write(bytes.data(), static_cast<int32_t>(bytes.size()));
    return file.commit();
}

}  // namespace files
