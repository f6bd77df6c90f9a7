#include "info.h"

#include <cstdio>
#include <cstring>
#include <string>

#include "engine/engine.h"
#include "files/midi.h"
#include "files/soundfont.h"
#include "options.h"
#include "project_cli.h"
#include "seq/seq.h"
#include "seq/timeline.h"
#include "sound/sample.h"

namespace info {

namespace {

// The first bytes of a file, enough to tell its kind.
struct Head {
    unsigned char bytes[12] = {};
    size_t size = 0;
    bool is(size_t at, const char* text) const {
        const size_t length = std::strlen(text);
        return at + length <= size && std::memcmp(bytes + at, text, length) == 0;
    }
};

int fail(const std::string& path, const std::string& why) {
    std::fprintf(stderr, "vantrell-cli: %s: %s\n", path.c_str(), why.c_str());
    return 1;
}

bool isAudio(const Head& head) { return head.is(0, "RIFF") ? head.is(8, "WAVE") : head.is(0, "FORM"); }

int describeAudio(const std::string& path) {
    CSample sample;
    sample.streamed = 1;  // the header is all that is needed
    if (!sample.open(path.c_str())) return fail(path, sample.error.c_str());
    const bool floating = sample.format == CString("WAV") && sample.bits == 32;
    std::printf("file:     %s\n", path.c_str());
    std::printf("format:   %s, %d bit %s\n", sample.format.c_str(), sample.bits, floating ? "float" : "integer");
    std::printf("rate:     %.0f Hz\n", static_cast<double>(sample.sampleRate));
    std::printf("channels: %d (%s)\n", sample.channels, sample.channels == 1 ? "mono" : "stereo");
    std::printf("frames:   %d\n", sample.frames);
    std::printf("length:   %.3f s\n", sample.frames / static_cast<double>(sample.sampleRate));
    if (sample.loop == loopForward) std::printf("loop:     forward from frame %d\n", sample.loopStart);
    else if (sample.loopCount > 0) std::printf("loop:     off (%d loops listed, the last from frame %d)\n", sample.loopCount, sample.loopStart);
    else std::printf("loop:     none\n");
    return 0;
}

bool isMidi(const Head& head) { return head.is(0, "MThd"); }

int describeMidi(const std::string& path) {
    CQV engine(EngineOptions{false, 1});
    auto* seq = new CSeq(&engine);
    seq->createPorts();
    engine.addComp(seq);
    const files::MidiImport song = files::importMIDI(*seq, nullptr, path.c_str(), nullptr, 0);
    const CSeqProg& prog = *seq->currentProg();
    const int32_t length = static_cast<int32_t>(seq->getLength());
    std::printf("file:     %s\n", path.c_str());
    std::printf("format:   Standard MIDI file, format %d, division %d%s\n", song.format, song.division,
                song.complete ? "" : " (damaged: read up to the damage)");
    const float tempo = prog.tempos.empty() ? 120.0f : prog.tempos.getAt(0)->tempo;
    std::printf("tempo:    %.0f BPM, %d change(s)\n", static_cast<double>(tempo), std::max(prog.tempos.count() - 1, 0));
    if (!prog.signatures.empty())
        std::printf("time:     %d/%d\n", prog.signatures.getAt(0)->numerator, prog.signatures.getAt(0)->denominator);
    std::printf("length:   %.2f quarter notes, %.3f s\n", length / 960.0, tickToFrame(&prog, tempo, length, 48000) / 48000.0);
    std::printf("tracks:   %zu\n", song.newTracks.size());
    for (const CTrack* track : song.newTracks) {
        int32_t notes = 0;
        for (const CPart* part : prog.songTrackOf(track)->parts)
            for (const CEventRec* e = part->getEvents(); e; e = e->next) notes += static_cast<const CMIDIEventRec*>(e)->isNoteOn();
        std::printf("  %-24s channel %-4s %d notes\n", track->name.c_str(),
                    track->channel < 0 ? "mix" : std::to_string(track->channel + 1).c_str(), notes);
    }
    std::fflush(stdout);
    return projectcli::tellDamage(path, song.damage);
}

bool isSoundFont(const Head& head) { return head.is(0, "RIFF") && head.is(8, "sfbk"); }

int describeSoundFont(const std::string& path) {
    files::SoundFontBank bank;
    if (!files::readSoundFont(bank, path.c_str())) return fail(path, bank.error);
    size_t zones = 0;
    for (const files::SoundFontPreset& preset : bank.presets)
        for (const files::SoundFontPresetZone& zone : preset.zones) zones += zone.zones.size();
    std::printf("file:     %s\n", path.c_str());
    std::printf("format:   SoundFont %d.%02d\n", bank.info.versionMajor, bank.info.versionMinor);
    std::printf("name:     %s\n", bank.info.name.c_str());
    if (!bank.info.copyright.empty()) std::printf("rights:   %s\n", bank.info.copyright.c_str());
    std::printf("presets:  %zu (%zu in bank 0, %zu drum kits in bank 128)\n", bank.presets.size(), bank.melodic.size(),
                bank.drums.size());
    std::printf("samples:  %zu, %.1f s of 16-bit audio at 44.1 kHz\n", bank.samples.size(), bank.sampleData.size() / 44100.0);
    std::printf("zones:    %zu\n", zones);
    for (const files::SoundFontPreset& preset : bank.presets)
        std::printf("  %03d-%03d %s\n", preset.bank, preset.preset, preset.name.c_str());
    return 0;
}

struct Kind {
    bool (*matches)(const Head& head);
    int (*describe)(const std::string& path);
};

// One row for each kind of file; the first that matches describes it.
bool isProject(const Head& head) { return projectcli::hasProjectMagic(head.bytes, head.size); }

constexpr Kind kinds[] = {
    {isSoundFont, describeSoundFont},
    {isAudio, describeAudio},
    {isMidi, describeMidi},
    {isProject, projectcli::describeProject},
};

}  // namespace

int run(const std::vector<std::string_view>& args) {
    if (args.size() != 1) {
        std::fputs("usage: vantrell-cli info FILE\n", stderr);
        return 2;
    }
    const std::string path(args[0]);
    try {
        cli::checkInput(path);
    } catch (const cli::FileRefused& refused) {
        std::fprintf(stderr, "vantrell-cli: %s\n", refused.message.c_str());
        return 1;
    }
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (!file) return fail(path, "The file cannot be opened");
    Head head;
    head.size = std::fread(head.bytes, 1, sizeof head.bytes, file);
    std::fclose(file);
    for (const Kind& kind : kinds)
        if (kind.matches(head)) return kind.describe(path);
    return fail(path, "not a kind of file vantrell-cli can describe");
}

}  // namespace info
