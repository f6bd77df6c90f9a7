#include "project_cli.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <stdexcept>

#include "demo_song.h"
#include "engine/io.h"
#include "files/gm_song.h"
#include "files/midi.h"
#include "files/project.h"
#include "files/soundfont.h"
#include "options.h"
#include "seq/seq.h"
#include "seq/timeline.h"
#include "sound/sampler.h"

namespace projectcli {

namespace {

constexpr int exitFailure = 1;
constexpr int exitUsage = 2;
// New projects are made at this rate; a project keeps no rate of its own.
constexpr double importRate = 48000.0;
constexpr int32_t tailTicks = 4 * ticksPerQuarter;

const char* const importUsage =
    "usage: vantrell-cli import --demo -o OUT.qv\n"
    "       vantrell-cli import SONG.mid [--soundfont FONT.sf2] -o OUT.qv\n"
    "       vantrell-cli import PROJECT.qv -o OUT.qv\n"
    "  --demo        the built-in demo song\n"
    "  SONG.mid      a Standard MIDI file: with --soundfont each channel and preset plays a sampler of the\n"
    "                bank's preset, without it each track plays a sampler of its own\n"
    "  PROJECT.qv    a project, opened and saved again\n"
    "  -o OUT.qv     the project to write; an existing file is replaced only when the save succeeds\n";

// Gathers what the project reader and writer tell the user, for one message at the end.
struct Said {
    files::ProjectContext context() {
        return {nullptr, [this](const CString& caption, const CString& message) {
                    text += std::string(caption.c_str()) + ": " + message.c_str() + "\n";
                }};
    }
    std::string text;
};

int usageError(const std::string& message) {
    std::fprintf(stderr, "vantrell-cli: %s\n%s", message.c_str(), importUsage);
    return exitUsage;
}

int failure(const std::string& message) {
    std::fprintf(stderr, "vantrell-cli: %s\n", message.c_str());
    return exitFailure;
}

CSeq* sequencerOf(const CQV& engine) {
    for (CComp* comp : engine.comps)
        if (comp->isSequencer()) return static_cast<CSeq*>(comp);
    return nullptr;
}

void openInto(CQV& engine, const std::filesystem::path& path, files::DamageReport& damage) {
    Said said;
    if (!files::openProject(engine, path.c_str(), said.context(), &damage))
        throw std::runtime_error(path.string() + ": " + (said.text.empty() ? "the project could not be read\n" : said.text));
    if (!said.text.empty()) std::fputs(said.text.c_str(), stderr);
}

// A MIDI file's tracks, each played by a sampler of its own through one audio output.
void buildFromMIDI(CQV& engine, const std::filesystem::path& path, files::DamageReport& damage) {
    const auto [seq, out] = files::addSongFrame(engine, importRate);
    const files::MidiImport imported = files::importMIDI(*seq, nullptr, path.c_str(), nullptr, 0);
    if (!imported.isMidi) throw std::runtime_error(path.string() + ": not a Standard MIDI file");
    damage = imported.damage;
    for (CTrack* track : imported.newTracks) {
        if (track->type != trackInstrument || !track->firstOutputPort()) continue;
        auto* sampler = new CSampler(&engine);
        sampler->createPorts();
        sampler->name = track->name;
        engine.addComp(sampler);
        sampler->midiCablesIn.add(makeMIDICable(sampler, track->firstOutputPort(), sampler->firstInputPort()));
        out->audioCablesIn.add(makeAudioCable(out, sampler->firstOutputChannel(), out->firstInputChannel()));
    }
}

struct Counts {
    int32_t tracks = 0, parts = 0, events = 0;
};

int32_t chainLength(const CEventRec* event) {
    int32_t count = 0;
    for (; event; event = event->next) ++count;
    return count;
}

Counts countSong(const CQV& engine) {
    Counts counts;
    const CSeq* seq = sequencerOf(engine);
    if (!seq) return counts;
    counts.tracks = seq->tracks.count();
    for (const CObject* object : seq->programs)
        for (const CSongTrack* songTrack : static_cast<const CSeqProg*>(object)->songTracks)
            for (const CPart* part : songTrack->parts) {
                ++counts.parts;
                counts.events += chainLength(part->getEvents());
            }
    return counts;
}

int32_t songEnd(const CQV& engine) {
    const CSeq* seq = sequencerOf(engine);
    return seq ? static_cast<int32_t>(seq->getLength()) : 0;
}

// "name" of a component with its place in the engine's lists.
std::string label(const CQV& engine, const CComp* comp) {
    if (!comp) return "(none)";
    std::string text;
    if (const int32_t at = engine.comps.indexOf(comp); at >= 0) text.append("#").append(std::to_string(at + 1)).append(" ");
    else if (const int32_t group = engine.groupChannels.indexOf(comp); group >= 0) text.append("group ").append(std::to_string(group + 1)).append(" ");
    return text.append(comp->name.c_str());
}

}  // namespace

int tellDamage(const std::string& path, const files::DamageReport& damage) {
    if (damage.empty()) return 0;
    std::fprintf(stderr, "vantrell-cli: %s is damaged; what could be read was used, this was lost:\n", path.c_str());
    for (const std::string& line : damage.lines) std::fprintf(stderr, "  %s\n", line.c_str());
    return exitDamaged;
}

bool hasProjectMagic(const unsigned char* bytes, size_t size) {
    return size >= 7 && bytes[0] == 3 && bytes[1] == 0 && bytes[2] == 0 && bytes[3] == 0 && std::memcmp(bytes + 4, "QV3", 3) == 0;
}

bool hasMIDIMagic(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    char head[4] = {};
    return in.read(head, 4) && std::memcmp(head, "MThd", 4) == 0;
}

bool isProjectFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    unsigned char head[7] = {};
    in.read(reinterpret_cast<char*>(head), sizeof head);
    return hasProjectMagic(head, static_cast<size_t>(in.gcount()));
}

ProjectSong::ProjectSong(const std::filesystem::path& path, double sampleRate) : engine(EngineOptions{false, 1}) {
    engine.setSampleRate(sampleRate);
    openInto(engine, path, damage_);
    lengthTicks_ = songEnd(engine) + tailTicks;
}

int runImport(const std::vector<std::string_view>& args) {
    bool demo = false;
    std::filesystem::path input, soundFont, output;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string_view arg = args[i];
        const bool valued = arg == "-o" || arg == "--output" || arg == "--soundfont";
        if (valued && i + 1 >= args.size()) return usageError(std::string(arg) + " wants a value");
        if (arg == "--demo") demo = true;
        else if (arg == "-o" || arg == "--output") output = args[++i];
        else if (arg == "--soundfont") soundFont = args[++i];
        else if (!arg.starts_with("-") && input.empty()) input = arg;
        else return usageError("unknown option '" + std::string(arg) + "'");
    }
    if (demo == !input.empty()) return usageError("import takes --demo, a MIDI file or a project");
    if (output.empty()) return usageError("no output file: give -o OUT.qv");
    if (demo && !soundFont.empty()) return usageError("--soundfont goes with a MIDI file");

    try {
        if (!demo) cli::checkInput(input);
        if (!soundFont.empty()) cli::checkInput(soundFont);
        cli::checkOutput(output);
    } catch (const cli::FileRefused& refused) {
        return failure(refused.message);
    }

    try {
        std::unique_ptr<demo::DemoSong> demoSong;
        std::unique_ptr<files::SoundFontBank> bank;
        std::unique_ptr<files::GmSong> gmSong;
        std::unique_ptr<CQV> opened;
        CQV* engine = nullptr;
        files::DamageReport damage;
        if (demo) {
            demoSong = std::make_unique<demo::DemoSong>(importRate);
            engine = &demoSong->engine;
        } else if (!soundFont.empty()) {
            if (!hasMIDIMagic(input)) return usageError("--soundfont goes with a MIDI file");
            bank = std::make_unique<files::SoundFontBank>();
            if (!files::readSoundFont(*bank, soundFont.c_str())) return failure(soundFont.string() + ": not a SoundFont that can be read");
            gmSong = std::make_unique<files::GmSong>(importRate, input.c_str(), *bank);
            engine = &gmSong->engine;
            damage = gmSong->damage();
        } else {
            opened = std::make_unique<CQV>(EngineOptions{false, 1});
            engine = opened.get();
            if (isProjectFile(input)) openInto(*engine, input, damage);
            else if (hasMIDIMagic(input)) buildFromMIDI(*engine, input, damage);
            else if (cli::extensionOf(input) == ".qv") return failure(input.string() + ": the project could not be read: the file is damaged or no project; open a backup or another copy");
            else return failure(input.string() + ": neither a project nor a Standard MIDI file");
        }
        Said said;
        if (!files::saveProject(*engine, output.c_str(), said.context())) return failure(output.string() + ": " + said.text);
        const Counts counts = countSong(*engine);
        // A device or a FIFO has no size to tell.
        std::error_code noSize;
        const auto bytes = std::filesystem::file_size(output, noSize);
        std::printf("wrote %s: %d tracks, %d parts, %d events, %d components", output.string().c_str(), counts.tracks,
                    counts.parts, counts.events, engine->comps.count());
        if (!noSize) std::printf(", %lld bytes", static_cast<long long>(bytes));
        std::printf("\n");
        return tellDamage(input.string(), damage);
    } catch (const std::exception& error) {
        return failure(error.what());
    }
}

int describeProject(const std::string& path) {
    CQV engine(EngineOptions{false, 1});
    files::DamageReport damage;
    try {
        openInto(engine, path, damage);
    } catch (const std::exception& error) {
        return failure(error.what());
    }
    const CSeq* seq = sequencerOf(engine);
    const CSeqProg* prog = seq ? seq->currentProg() : nullptr;
    const int32_t end = songEnd(engine);
    const float bpm = engine.bpm.load();
    const double seconds = tickToFrame(prog, bpm, end, static_cast<int32_t>(importRate)) / importRate;
    std::printf("file:       %s\n", path.c_str());
    std::printf("tempo:      %.2f BPM, %d/%d\n", static_cast<double>(bpm), engine.timeSigNum, engine.timeSigDen);
    std::printf("length:     %s (%d ticks), %d:%06.3f\n", formatBars(end, engine.timeSigNum, engine.timeSigDen).c_str(), end,
                static_cast<int>(seconds / 60.0), seconds - 60.0 * static_cast<int>(seconds / 60.0));
    const Counts counts = countSong(engine);
    std::printf("tracks:     %d (%d parts, %d events)\n", counts.tracks, counts.parts, counts.events);
    if (seq) {
        for (int32_t t = 0; t < seq->tracks.count(); ++t) {
            const CTrack* track = seq->tracks.getAt(t);
            const CSongTrack* songTrack = prog ? prog->songTrackOf(track) : nullptr;
            std::printf("  %2d %-10s %s\n", t + 1, trackTypeWord(track->type).c_str(), track->name.c_str());
            if (!songTrack) continue;
            for (const CPart* part : songTrack->parts)
                std::printf("       part %-12s bar %s, %d ticks, %d events%s\n", part->getName().c_str(),
                            formatBars(part->start, engine.timeSigNum, engine.timeSigDen).c_str(), part->effectiveLength(),
                            chainLength(part->getEvents()), part->isGhost() ? " (ghost)" : "");
        }
    }
    std::printf("components: %d, groups %d\n", engine.comps.count(), engine.groupChannels.count());
    const auto listComp = [&engine](const CComp* comp) {
        std::printf("  %s (type %d)\n", label(engine, comp).c_str(), comp->subKind);
    };
    for (const CComp* comp : engine.comps) listComp(comp);
    for (const CComp* group : engine.groupChannels) listComp(group);
    int32_t audio = 0, midi = 0;
    const auto countCables = [&](const CComp* comp) {
        audio += comp->audioCablesIn.count();
        midi += comp->midiCablesIn.count();
    };
    for (const CComp* comp : engine.comps) countCables(comp);
    for (const CComp* group : engine.groupChannels) countCables(group);
    std::printf("cables:     %d audio, %d MIDI\n", audio, midi);
    const auto listCables = [&engine](const CComp* comp) {
        for (const CAudioCable* cable : comp->audioCablesIn)
            std::printf("  audio %s -> %s\n", label(engine, cable->source).c_str(), label(engine, comp).c_str());
        for (const CMIDICable* cable : comp->midiCablesIn)
            std::printf("  MIDI  %s -> %s\n", label(engine, cable->source).c_str(), label(engine, comp).c_str());
    };
    for (const CComp* comp : engine.comps) listCables(comp);
    for (const CComp* group : engine.groupChannels) listCables(group);
    std::fflush(stdout);
    return tellDamage(path, damage);
}

}  // namespace projectcli
