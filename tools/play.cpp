#include "play.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "demo_song.h"
#include "engine/aam.h"
#include "engine/device_cycle.h"
#include "engine/io.h"
#include "files/gm_song.h"
#include "files/project.h"
#include "files/soundfont.h"
#include "sound/sampler.h"

namespace play {

namespace {

constexpr int exitUsage = 2;
constexpr double songRate = 48000.0;
constexpr int32_t defaultBlock = 256;

const char* const usage =
    "usage: vantrell-cli play (--demo | SONG.mid [--soundfont FONT.sf2] | PROJECT.qv)\n"
    "                         [--driver jack|alsa|null] [--device NAME] [--seconds N]\n"
    "  --demo        play the built-in demo song\n"
    "  SONG.mid      a Standard MIDI file through the presets of a SoundFont 2 bank\n"
    "  --soundfont F the bank for a MIDI file (default /usr/share/sounds/sf2/default-GM.sf2)\n"
    "  PROJECT.qv    a project file\n"
    "  --driver D    jack (default, ALSA when no JACK server runs), alsa or null\n"
    "  --device NAME the ALSA device, for example default, null or hw:0\n"
    "  --seconds N   stop after N seconds (default: at the end of the song)\n";

constexpr const char* defaultSoundFont = "/usr/share/sounds/sf2/default-GM.sf2";

struct Options {
    bool demo = false;
    std::filesystem::path song;
    std::filesystem::path soundFont = defaultSoundFont;
    int32_t driver = platform::driverJack;
    bool driverGiven = false;
    std::string device;
    double seconds = 0.0;
};

std::atomic<bool> interrupted{false};

extern "C" void onInterrupt(int) { interrupted.store(true); }

bool parse(const std::vector<std::string_view>& args, Options& options, std::string& error) {
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string_view arg = args[i];
        const bool hasValue = i + 1 < args.size();
        if (arg == "--demo") {
            options.demo = true;
        } else if (arg == "--driver" && hasValue) {
            const std::string_view name = args[++i];
            options.driverGiven = true;
            if (name == "jack") options.driver = platform::driverJack;
            else if (name == "alsa") options.driver = platform::driverAlsa;
            else if (name == "null") options.driver = platform::driverNull;
            else return error = "--driver must be jack, alsa or null, not '" + std::string(name) + "'", false;
        } else if (arg == "--soundfont" && hasValue) {
            options.soundFont = args[++i];
        } else if (arg == "--device" && hasValue) {
            options.device = args[++i];
        } else if (arg == "--seconds" && hasValue) {
            const std::string text(args[++i]);
            char* end = nullptr;
            options.seconds = std::strtod(text.c_str(), &end);
            if (end == text.c_str() || *end || !(options.seconds > 0.0))
                return error = "--seconds wants a number above 0, not '" + text + "'", false;
        } else if (arg == "--driver" || arg == "--device" || arg == "--seconds" || arg == "--soundfont") {
            return error = std::string(arg) + " wants a value", false;
        } else if (!arg.starts_with("-") && options.song.empty()) {
            options.song = arg;
        } else {
            return error = "unknown option '" + std::string(arg) + "'", false;
        }
    }
    if (options.demo == !options.song.empty()) return error = "play wants either --demo or one song file", false;
    return true;
}

// Whichever kind of song is playing, with its engine and its length in ticks (0: no end).
struct Song {
    std::unique_ptr<demo::DemoSong> demo;
    std::unique_ptr<files::SoundFontBank> bank;
    std::unique_ptr<files::GmSong> midi;
    std::unique_ptr<CQV> project;
    CQV* engine = nullptr;
    int32_t lengthTicks = 0;
};

// Throws std::runtime_error with the reason when the file can't be played.
Song loadSong(const Options& options) {
    Song song;
    if (options.demo) {
        song.demo = std::make_unique<demo::DemoSong>(songRate);
        song.engine = &song.demo->engine;
        song.lengthTicks = song.demo->lengthTicks();
        return song;
    }
    std::string extension = options.song.extension().string();
    for (char& c : extension) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (extension == ".qv") {
        song.project = std::make_unique<CQV>(EngineOptions{false, 1});
        std::string problem;
        files::ProjectContext context;
        context.message = [&problem](const CString& caption, const CString& text) {
            problem = std::string(caption.c_str()) + ": " + text.c_str();
        };
        if (!files::openProject(*song.project, options.song.c_str(), context))
            throw std::runtime_error(problem.empty() ? "not a project" : problem);
        song.engine = song.project.get();
        for (CComp* comp : song.engine->comps)
            if (comp->isSequencer()) song.lengthTicks = static_cast<int32_t>(comp->getLength());
        return song;
    }
    song.bank = std::make_unique<files::SoundFontBank>();
    if (!files::readSoundFont(*song.bank, options.soundFont.c_str()))
        throw std::runtime_error(options.soundFont.string() + ": " + song.bank->error);
    song.midi = std::make_unique<files::GmSong>(songRate, options.song.c_str(), *song.bank);
    song.engine = &song.midi->engine;
    song.lengthTicks = song.midi->lengthTicks();
    return song;
}

}  // namespace

CComp* addLiveInput(CQV& engine) {
    for (CComp* comp : engine.comps)
        if (comp->subKind == compMIDIIn) return comp;
    CSampler* instrument = nullptr;
    for (CComp* comp : engine.comps)
        if (!instrument) instrument = dynamic_cast<CSampler*>(comp);
    auto* input = new CMIDIIn(&engine);
    input->createPorts();
    engine.addComp(input);
    if (instrument)
        instrument->midiCablesIn.add(makeMIDICable(instrument, input->firstOutputPort(), instrument->firstInputPort()));
    return input;
}

int run(const std::vector<std::string_view>& args) {
    Options options;
    std::string error;
    if (!parse(args, options, error)) {
        std::fprintf(stderr, "vantrell-cli: %s\n%s", error.c_str(), usage);
        return exitUsage;
    }
    Song song;
    try {
        song = loadSong(options);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "vantrell-cli: cannot play %s: %s\n", options.song.string().c_str(), failure.what());
        return EXIT_FAILURE;
    }
    CQV& engine = *song.engine;
    addLiveInput(engine);

    // The transport runs from the first block; once audio runs, only the audio thread touches the model.
    engine.setPosition(0.0);
    engine.start();
    CAAM aam(engineCallback(engine), options.driver);
    attachEngine(aam, engine);
    aam.showMessage = [](const char* title, const char* text) { std::fprintf(stderr, "vantrell-cli: %s: %s\n", title, text); };
    aam.inputEnabled[0] = aam.inputEnabled[1] = 1;
    aam.outputEnabled[0] = aam.outputEnabled[1] = 1;
    aam.blockSize = defaultBlock;
    aam.sampleRate = static_cast<float>(songRate);
    aam.deviceName = options.device.c_str();
    if (!aam.startAudio(options.driver, 0, !options.driverGiven))
        std::fprintf(stderr, "vantrell-cli: playing without sound through the null driver\n");
    for (int32_t i = 0; i < aam.midiInDevices.count(); ++i) aam.setMIDIIn(i, 1);
    aam.setMIDIOut(0, 1);
    const CAudioDevice* listed = aam.devices.getAt(aam.deviceIndex);
    const std::string device = aam.driver == platform::driverAlsa && !options.device.empty() ? options.device
                               : listed                                                      ? listed->name.c_str()
                                                                                             : "no device";
    std::printf("playing %s through %s, %s: %.0f Hz, %d frames a block\n",
                options.demo ? "the demo song" : options.song.string().c_str(), platform::driverName(aam.driver),
                device.c_str(), static_cast<double>(aam.sampleRate), aam.blockSize);
    std::fflush(stdout);

    std::signal(SIGINT, onInterrupt);
    std::signal(SIGTERM, onInterrupt);
    const auto started = std::chrono::steady_clock::now();
    const auto elapsed = [&] { return std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count(); };
    while (!interrupted.load()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(40));
        aam.guiTick();
        engine.guiTick();
        if (options.seconds > 0.0 && elapsed() >= options.seconds) break;
        if (song.lengthTicks > 0 && engine.position.load(std::memory_order_relaxed) >= song.lengthTicks) break;
    }
    aam.closeDevice();
    engine.stop();
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
    std::printf("played %.1f s, %lld xruns\n", elapsed(), static_cast<long long>(aam.xruns()));
    return EXIT_SUCCESS;
}

}  // namespace play
