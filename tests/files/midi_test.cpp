#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "core/temp_folder.h"
#include "engine/engine.h"
#include "engine/undo.h"
#include "files/midi.h"
#include "platform/platform.h"
#include "seq/seq.h"

namespace {

using Bytes = std::vector<uint8_t>;

const std::filesystem::path openmsx = "/usr/share/games/openttd/baseset/openmsx";
const std::filesystem::path mmaExamples = "/usr/share/doc/mma/examples";

Bytes readAll(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// A sequencer with no tracks, and the debug lines the import writes.
struct Song {
    Song() : engine(EngineOptions{false, 1}) {
        seq = new CSeq(&engine);
        seq->createPorts();
        engine.addComp(seq);
        platform::setDebugSink([this](const char* line) { log.emplace_back(line); });
    }
    ~Song() { platform::setDebugSink({}); }
    CSeqProg& prog() const { return *seq->currentProg(); }
    files::MidiImport import(const Bytes& bytes, CUndo* undo = nullptr, int32_t startTick = 0) {
        return files::importMIDI(*seq, nullptr, bytes, undo, startTick, "test.mid");
    }
    CQV engine;
    CSeq* seq;
    std::vector<std::string> log;
};

struct Note {
    int64_t tick;
    uint32_t channel, key, velocity;
    int32_t duration;
    friend bool operator==(const Note&, const Note&) = default;
    friend bool operator<(const Note& a, const Note& b) {
        return std::tie(a.tick, a.channel, a.key, a.duration) < std::tie(b.tick, b.channel, b.key, b.duration);
    }
};

// The notes of every part of the arrangement's instrument tracks, by track, with absolute ticks.
std::vector<std::vector<Note>> notesOf(const CSeqProg& prog) {
    std::vector<std::vector<Note>> tracks;
    for (const CSongTrack* songTrack : prog.songTracks) {
        std::vector<Note>& notes = tracks.emplace_back();
        for (const CPart* part : songTrack->parts) {
            int64_t tick = part->start + part->offset;
            for (const CEventRec* e = part->getEvents(); e; e = e->next) {
                tick += e->delta;
                const auto& m = static_cast<const CMIDIEventRec&>(*e);
                if (m.isNoteOn()) notes.push_back({tick, m.message & 0xF, (m.message >> 8) & 0x7F, m.message >> 16, m.duration});
            }
        }
        std::sort(notes.begin(), notes.end());
    }
    return tracks;
}

// Chunk assembly for hand-built files.
Bytes chunk(const char* id, const Bytes& body) {
    Bytes out(id, id + 4);
    const auto n = static_cast<uint32_t>(body.size());
    for (int shift : {24, 16, 8, 0}) out.push_back(static_cast<uint8_t>(n >> shift));
    out.insert(out.end(), body.begin(), body.end());
    return out;
}
Bytes header(uint16_t format, uint16_t tracks, uint16_t division) {
    return chunk("MThd", {0, static_cast<uint8_t>(format), 0, static_cast<uint8_t>(tracks),
                          static_cast<uint8_t>(division >> 8), static_cast<uint8_t>(division)});
}
Bytes file(std::initializer_list<Bytes> pieces) {
    Bytes out;
    for (const Bytes& p : pieces) out.insert(out.end(), p.begin(), p.end());
    return out;
}

// Independent of the importer: note-ons of one file, per track chunk, with the length to the matching
// note-off, as read by a plain walk that keeps absolute file ticks and rounds them to ours.
std::vector<std::vector<Note>> scanNotes(const Bytes& b, int64_t division) {
    const auto ours = [division](int64_t tick) { return (tick * 960 + division / 2) / division; };
    std::vector<std::vector<Note>> tracks;
    for (size_t pos = 14; pos + 8 <= b.size();) {
        const size_t end =
            pos + 8 + (size_t{b[pos + 4]} << 24 | size_t{b[pos + 5]} << 16 | size_t{b[pos + 6]} << 8 | b[pos + 7]);
        const bool isTrack = std::equal(b.begin() + static_cast<long>(pos), b.begin() + static_cast<long>(pos) + 4, "MTrk");
        pos += 8;
        std::vector<Note> notes;
        std::map<uint32_t, std::vector<size_t>> open;
        const auto number = [&] {
            uint32_t v = 0;
            while (b[pos] & 0x80) v = (v << 7) | (b[pos++] & 0x7F);
            return (v << 7) | b[pos++];
        };
        int64_t tick = 0;
        uint8_t status = 0;
        while (isTrack && pos < end) {
            tick += number();
            if (b[pos] >= 0xF0) {  // meta events (with their type byte) and SysEx: a length and data
                pos += b[pos] == 0xFF ? 2 : 1;
                pos += number();
                continue;
            }
            if (b[pos] & 0x80) status = b[pos++];
            const uint32_t kind = status & 0xF0u, key = b[pos], velocity = kind == 0xC0 || kind == 0xD0 ? 0 : b[pos + 1];
            pos += kind == 0xC0 || kind == 0xD0 ? 1 : 2;
            std::vector<size_t>& waiting = open[(status & 0xFu) * 128 + key];
            if (kind == 0x90 && velocity > 0) {
                waiting.push_back(notes.size());
                notes.push_back({ours(tick), status & 0xFu, key, velocity, -1});
            } else if ((kind == 0x80 || kind == 0x90) && !waiting.empty()) {
                notes[waiting.front()].duration = static_cast<int32_t>(ours(tick) - notes[waiting.front()].tick);
                waiting.erase(waiting.begin());
            }
        }
        pos = end;
        std::sort(notes.begin(), notes.end());
        if (!notes.empty()) tracks.push_back(std::move(notes));
    }
    return tracks;
}

TEST(MidiImport, RealFilesOfEveryDivisionLandNoteForNote) {
    // Files from two programs, format 0 and 1, divisions 96 to 480, with running status and SysEx,
    // compared tick for tick: a division that does not divide ours must not drift along a track.
    const std::vector<std::tuple<std::filesystem::path, int32_t, int32_t>> cases = {
        {mmaExamples / "midi-inc/rec1.mid", 0, 192},
        {mmaExamples / "midi-inc/drum.mid", 0, 384},
        {mmaExamples / "aria/bossa.mid", 1, 192},
        {mmaExamples / "midi-inc/mid2seq/shes-just-my-style.mid", 1, 192},
        {openmsx / "busy_schedule.mid", 1, 0},
        {openmsx / "5432gone_redfarn.mid", 1, 0},
    };
    int32_t divisionsSeen = 0;
    for (const auto& [path, format, division] : cases) {
        SCOPED_TRACE(path.string());
        if (!std::filesystem::exists(path)) GTEST_SKIP() << "scripts/bootstrap installs the sample files";
        const Bytes bytes = readAll(path);
        Song song;
        const files::MidiImport result = files::importMIDI(*song.seq, nullptr, CString(path.c_str()), nullptr, 0);
        ASSERT_TRUE(result.isMidi);
        EXPECT_TRUE(result.complete);
        EXPECT_EQ(result.format, format);
        if (division) { EXPECT_EQ(result.division, division); }
        divisionsSeen |= 1 << (result.division / 32 % 31);
        auto imported = notesOf(song.prog());
        std::erase_if(imported, [](const std::vector<Note>& notes) { return notes.empty(); });
        const auto expected = scanNotes(bytes, result.division);
        ASSERT_EQ(imported.size(), expected.size());
        for (size_t t = 0; t < expected.size(); ++t) {
            ASSERT_EQ(imported[t].size(), expected[t].size()) << "track " << t;
            for (size_t i = 0; i < expected[t].size(); ++i) ASSERT_EQ(imported[t][i], expected[t][i]) << "track " << t << " note " << i;
        }
        // Format 0 puts all channels on one track, which keeps playing each event's own channel.
        if (format == 0) { EXPECT_EQ(result.newTracks[0]->channel, -1); }
        for (const CPart* part : song.prog().songTracks.getAt(0)->parts) EXPECT_EQ(part->length % 960, 0);
        EXPECT_FALSE(song.prog().tempos.empty());
    }
    EXPECT_GE(std::popcount(static_cast<uint32_t>(divisionsSeen)), 3);
}

TEST(MidiImport, TempoTimeSignatureChannelsAndOpenNotesEnterWithTheUndoStepAndLeaveWithIt) {
    // Format 1 at 480: a tempo track with a name, duplicated tempo and signature at 0, a change at beat 2;
    // two tracks on channels 1 and 9, running status, note-off by velocity 0, a note never closed.
    const Bytes tempo = chunk("MTrk", {0x00, 0xFF, 0x03, 0x05, 'T', 'e', 'm', 'p', 'o',
                                       0x00, 0xFF, 0x51, 0x03, 0x07, 0xA1, 0x20,        // 120 BPM
                                       0x00, 0xFF, 0x51, 0x03, 0x07, 0xA1, 0x20,        // the same again
                                       0x00, 0xFF, 0x58, 0x04, 0x03, 0x03, 0x18, 0x08,  // 3/8
                                       0x00, 0xFF, 0x58, 0x04, 0x03, 0x03, 0x18, 0x08,
                                       0x83, 0x60, 0xFF, 0x51, 0x03, 0x09, 0x27, 0xC0,  // 480 ticks: 100 BPM
                                       0x00, 0xFF, 0x2F, 0x00});
    const Bytes piano = chunk("MTrk", {0x00, 0xFF, 0x03, 0x05, 'P', 'i', 'a', 'n', 'o',
                                       0x00, 0xC1, 0x05,              // program change
                                       0x00, 0x91, 0x3C, 0x64,        // C4 on
                                       0x00, 0x40, 0x50,              // E4 on, running status
                                       0x81, 0x70, 0x3C, 0x00,        // 240 ticks: C4 off by velocity 0
                                       0x00, 0x81, 0x40, 0x00,        // E4 off by 0x80
                                       0x00, 0xF0, 0x03, 0x7E, 0x09, 0xF7,  // SysEx between events
                                       0x00, 0xB1, 0x07, 0x64,
                                       0x00, 0x91, 0x43, 0x70,        // G4 never closed
                                       0x00, 0xFF, 0x2F, 0x00});
    const Bytes drums = chunk("MTrk", {0x00, 0x99, 0x24, 0x7F, 0x60, 0x89, 0x24, 0x00, 0x00, 0xFF, 0x2F, 0x00});
    Song song;
    CUndo* step = beginUndo(song.engine, "Import", song.seq, 16);
    const auto result = song.import(file({header(1, 3, 480), tempo, piano, drums}), step, 7680);
    ASSERT_TRUE(result.complete);
    // Through a step nothing enters until it runs.
    EXPECT_EQ(song.seq->tracks.count(), 0);
    EXPECT_TRUE(song.prog().tempos.empty());
    step->apply(song.engine);

    // The tempo chunk made no track of its own: its name went to the first track, which the piano renamed.
    ASSERT_EQ(result.newTracks.size(), 2u);
    EXPECT_STREQ(result.newTracks[0]->name.c_str(), "Piano");
    EXPECT_EQ(result.newTracks[0]->channel, 1);
    EXPECT_EQ(result.newTracks[1]->channel, 9);

    const CSeqProg& prog = song.prog();
    ASSERT_EQ(prog.tempos.count(), 2);
    EXPECT_EQ(std::tie(prog.tempos.getAt(0)->start, prog.tempos.getAt(0)->tempo), std::make_tuple(0, 120.0f));
    EXPECT_EQ(std::tie(prog.tempos.getAt(1)->start, prog.tempos.getAt(1)->tempo), std::make_tuple(960, 100.0f));
    ASSERT_EQ(prog.signatures.count(), 1);
    EXPECT_EQ(std::tie(prog.signatures.getAt(0)->numerator, prog.signatures.getAt(0)->denominator), std::make_tuple(3, 8));

    const auto notes = notesOf(prog);
    ASSERT_EQ(notes.size(), 2u);
    const std::vector<Note> pianoNotes = {{7680, 1, 60, 100, 480}, {7680, 1, 64, 80, 480}, {8160, 1, 67, 112, -1}};
    EXPECT_EQ(notes[0], pianoNotes);
    EXPECT_EQ(notes[1], (std::vector<Note>{{7680, 9, 36, 127, 192}}));
    // The program change, the controller and the three notes; 480 ticks round the part up to 960.
    const CPart& part = *prog.songTracks.getAt(0)->parts.getAt(0);
    int32_t events = 0;
    for (const CEventRec* e = part.getEvents(); e; e = e->next) ++events;
    EXPECT_EQ(events, 5);
    EXPECT_EQ(part.length, 960);
    EXPECT_EQ(part.start, 7680);

    step->revert(song.engine);
    EXPECT_EQ(song.seq->tracks.count(), 0);
    EXPECT_TRUE(song.prog().tempos.empty());
    EXPECT_TRUE(song.prog().signatures.empty());
    delete step;
}

TEST(MidiImport, DamagedFilesKeepWhatCameBefore) {
    const Bytes oneNote = {0x00, 0x90, 0x3C, 0x64, 0x60, 0x80, 0x3C, 0x00};
    Bytes notes = oneNote;
    notes.insert(notes.end(), {0x00, 0x90, 0x3E, 0x64});

    {  // Not a MIDI file: the log names it and nothing changes.
        Song song;
        const auto result = song.import(chunk("RIFF", oneNote));
        EXPECT_FALSE(result.isMidi);
        EXPECT_EQ(song.seq->tracks.count(), 0);
        ASSERT_EQ(song.log.size(), 1u);
        EXPECT_EQ(song.log[0], "Not a MIDI file test.mid");
    }
    {  // A data byte before any status: the message, and the chunk before stays.
        Song song;
        const Bytes bad = {0x00, 0x3C, 0x64};
        const auto result = song.import(file({header(1, 2, 96), chunk("MTrk", oneNote), chunk("MTrk", bad), chunk("MTrk", oneNote)}));
        EXPECT_FALSE(result.complete);
        EXPECT_EQ(result.newParts.size(), 1u);
        ASSERT_FALSE(song.log.empty());
        EXPECT_EQ(song.log.back(), "Invalid file format (3)");
        EXPECT_EQ(notesOf(song.prog())[0], (std::vector<Note>{{0, 0, 60, 100, 960}}));
    }
    {  // A chunk longer than the file, cut inside an event: the whole notes before the cut stay.
        Song song;
        Bytes cut = file({header(0, 1, 960), chunk("MTrk", notes)});
        cut.resize(cut.size() - 2);
        const auto result = song.import(cut);
        EXPECT_FALSE(result.complete);
        EXPECT_EQ(notesOf(song.prog())[0], (std::vector<Note>{{0, 0, 60, 100, 96}}));
    }
    {  // A header cut short, a huge delta, an unknown chunk and a meta length past the end.
        Song song;
        EXPECT_TRUE(song.import({'M', 'T', 'h', 'd', 0, 0}).isMidi);
        const Bytes huge = {0x8F, 0xFF, 0xFF, 0x7F, 0x90, 0x3C, 0x64, 0x00, 0xFF, 0x01, 0x8F, 0xFF, 0xFF, 0x7F, 'x'};
        song.import(file({header(1, 2, 1), chunk("XFIL", {1, 2, 3}), chunk("MTrk", huge)}));
        const auto notesNow = notesOf(song.prog());
        ASSERT_EQ(notesNow.size(), 1u);
        ASSERT_EQ(notesNow[0].size(), 1u);
        EXPECT_GT(notesNow[0][0].tick, 0);
        EXPECT_LE(notesNow[0][0].tick, int64_t{1} << 30);
    }
}

TEST(MidiExport, BytesFollowTheFormat) {
    Song song;
    song.engine.bpm = 125.0f;
    CTrack* track = addTrack(*song.seq, trackInstrument, nullptr, -1);
    track->name = "Bass";
    track->channel = 3;
    CSongTrack& songTrack = *song.prog().songTracks.getAt(0);
    auto* part = new CMIDIPart();
    part->start = 960;
    part->length = 960;
    part->songTrack = &songTrack;
    songTrack.parts.add(part);
    auto* note = new CMIDIEventRec();
    note->message = packMIDI(0x90, 40, 90);
    note->duration = 2000;  // cut at the part's end
    insertEvent(*part, 0, note);
    auto* bend = new CMIDIEventRec();
    bend->message = packMIDI(0xE0, 0, 64);
    insertEvent(*part, 240, bend);
    song.prog().loopOn = 0;

    const Bytes expected = file({
        header(1, 3, 960),
        chunk("MTrk", {0x00, 0xFF, 0x51, 0x03, 0x07, 0x53, 0x00, 0x00, 0xFF, 0x2F, 0x00}),  // 480000 us
        chunk("MTrk", {0x00, 0xFF, 0x58, 0x04, 0x04, 0x02, 0x18, 0x08, 0x00, 0xFF, 0x2F, 0x00}),
        chunk("MTrk", {0x00, 0xFF, 0x20, 0x01, 0x03, 0x00, 0xFF, 0x03, 0x04, 'B', 'a', 's', 's',
                       0x87, 0x40, 0x93, 40, 90,          // delta 960, channel forced to 3
                       0x81, 0x70, 0xE3, 0x00, 0x40,      // 240 later, the bend
                       0x85, 0x50, 0x93, 40, 0x00,        // 720 later, at the part's end
                       0x00, 0xFF, 0x2F, 0x00}),
    });
    EXPECT_EQ(files::exportMIDIBytes(*song.seq), expected);
}

TEST(MidiExport, ImportOfTheExportGivesTheSameSong) {
    const auto path = mmaExamples / "aria/bossa.mid";
    if (!std::filesystem::exists(path)) GTEST_SKIP() << "scripts/bootstrap installs the sample files";
    Song first;
    files::importMIDI(*first.seq, nullptr, CString(path.c_str()), nullptr, 0);
    first.prog().loopOn = 0;
    const Bytes exported = files::exportMIDIBytes(*first.seq);
    Song second;
    second.import(exported);
    EXPECT_EQ(notesOf(second.prog()), notesOf(first.prog()));
    ASSERT_EQ(second.prog().tempos.count(), first.prog().tempos.count());
    for (int32_t i = 0; i < first.prog().tempos.count(); ++i) {
        const auto &a = *first.prog().tempos.getAt(i), &b = *second.prog().tempos.getAt(i);
        EXPECT_EQ(std::tie(b.start, b.tempo), std::tie(a.start, a.tempo)) << "tempo " << i;
    }
    for (int32_t i = 0; i < first.seq->tracks.count(); ++i)
        EXPECT_EQ(second.seq->tracks.getAt(i)->channel, first.seq->tracks.getAt(i)->channel);

    // With the loop on, only the loop range, moved to 0; a muted track and a muted part leave nothing.
    first.prog().loopOn = 1;
    first.prog().leftLocator = 3840;
    first.prog().rightLocator = 4 * 3840;
    first.seq->tracks.getAt(0)->flags.fetch_or(trackflag::muted);
    first.prog().songTracks.getAt(1)->parts.getAt(0)->flags.fetch_or(partflag::muted);
    Song third;
    third.import(files::exportMIDIBytes(*first.seq));
    size_t inside = 0, written = 0;
    const auto all = notesOf(first.prog());
    for (size_t t = 2; t < all.size(); ++t)
        for (const Note& n : all[t]) inside += n.tick >= 3840 && n.tick < 4 * 3840;
    for (const auto& notes : notesOf(third.prog())) {
        written += notes.size();
        for (const Note& n : notes) EXPECT_LT(n.tick, 3 * 3840);
    }
    EXPECT_GT(inside, 0u);
    EXPECT_EQ(written, inside);
}

TEST(MidiExport, FileIsReplacedOnlyWhenWritten) {
    Song song;
    TempFolder dir;
    ASSERT_TRUE(files::exportMIDI(*song.seq, CString(dir.file("song.mid").c_str())));
    EXPECT_EQ(readAll(dir.file("song.mid")), files::exportMIDIBytes(*song.seq));
    EXPECT_FALSE(files::exportMIDI(*song.seq, CString(dir.file("missing/song.mid").c_str())));
}

}  // namespace
