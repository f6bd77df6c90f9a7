// vantrell-cli: the engine's jobs from a shell, with no window and no audio device.
//
//   vantrell-cli render --demo -o FILE [--format wav|aiff|mp3] [--rate N] [--bits 16|24|32] [--mono] [--bitrate N]
//   vantrell-cli render SONG.mid --soundfont FONT.sf2 -o FILE [the same options]
//   vantrell-cli render PROJECT.qv -o FILE [the same options]
//   vantrell-cli import --demo | SONG.mid [--soundfont FONT.sf2] | PROJECT.qv -o OUT.qv
//   vantrell-cli info FILE
//   vantrell-cli play --demo | SONG.mid [--soundfont F] | PROJECT.qv [--driver jack|alsa|null] [--device NAME] [--seconds N]

#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "demo_song.h"
#include "files/audio_writer.h"
#include "files/gm_song.h"
#include "files/mp3.h"
#include "files/render.h"
#include "info.h"
#include "platform/platform.h"
#include "play.h"
#include "project_cli.h"

namespace {

constexpr int exitFailure = 1;
constexpr int exitUsage = 2;

const char* const usage =
    "usage: vantrell-cli render --demo -o FILE [--format wav|aiff|mp3] [--rate N] [--bits 16|24|32] [--mono]\n"
    "                          [--bitrate N]\n"
    "       vantrell-cli render SONG.mid --soundfont FONT.sf2 -o FILE [the options above]\n"
    "       vantrell-cli render PROJECT.qv -o FILE [the options above]\n"
    "       vantrell-cli import --demo | SONG.mid [--soundfont FONT.sf2] | PROJECT.qv -o OUT.qv\n"
    "       vantrell-cli info FILE\n"
    "       vantrell-cli play --demo | SONG.mid [--soundfont F] | PROJECT.qv [--driver jack|alsa|null]\n"
    "                         [--device NAME] [--seconds N]   (in real time through an audio device)\n"
    "  --demo        render the built-in demo song\n"
    "  SONG.mid      render a Standard MIDI file through samplers playing the presets of a SoundFont 2 bank:\n"
    "  --soundfont F   program changes choose the presets, channel 10 plays the drum kits of bank 128\n"
    "  -o FILE       the file to write; an existing file is replaced only when the render succeeds\n"
    "  --format F    wav, aiff or mp3 (default: from the extension of FILE, else wav)\n"
    "  --rate N      sample rate, 8000 to 192000 (default 48000)\n"
    "  --bits B      16 or 24 bit integer, or 32: float in WAV, integer in AIFF (default 16)\n"
    "  --mono        one channel instead of two\n"
    "  --bitrate N   MP3 kilobits a second, 32 to 320 (default 128), through lame on PATH\n"
    "  PROJECT.qv    render a project from its start to the end of its last part and one bar more\n"
    "  import        build a project from the demo song, a MIDI file or another project, and save it\n"
    "  info FILE     describe a WAV, AIFF, MIDI, SoundFont or project file\n";

struct UsageError {
    std::string message;
};

struct RenderOptions {
    bool demo = false;
    std::filesystem::path midi;
    std::filesystem::path soundFont;
    std::filesystem::path output;
    files::AudioFormat format{48000, 2, files::SampleFormat::int16};
    bool mp3 = false;
    int32_t bitrate = 128;
};

// The format a file name asks for when --format doesn't say.
void formatFromName(RenderOptions& options, std::string_view name) {
    std::string text(name);
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    const auto endsWith = [&text](std::string_view tail) { return text.size() >= tail.size() && text.ends_with(tail); };
    options.mp3 = endsWith(".mp3");
    options.format.type = endsWith(".aif") || endsWith(".aiff") ? files::FileType::aiff : files::FileType::wav;
}

int parseRate(std::string_view text, int low = 8000, int high = 192000, const char* option = "--rate") {
    int value = 0;
    for (char c : text) {
        if (c < '0' || c > '9' || value > 1000000)
            throw UsageError{std::string(option) + " wants a whole number, not '" + std::string(text) + "'"};
        value = value * 10 + (c - '0');
    }
    if (text.empty() || value < low || value > high)
        throw UsageError{std::string(option) + " must be between " + std::to_string(low) + " and " + std::to_string(high)};
    return value;
}

files::SampleFormat parseBits(std::string_view text) {
    if (text == "16") return files::SampleFormat::int16;
    if (text == "24") return files::SampleFormat::int24;
    if (text == "32f" || text == "32") return files::SampleFormat::float32;
    throw UsageError{"--bits must be 16, 24 or 32, not '" + std::string(text) + "'"};
}

RenderOptions parseRender(const std::vector<std::string_view>& args) {
    RenderOptions options;
    std::string_view format;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string_view arg = args[i];
        const auto value = [&]() -> std::string_view {
            if (i + 1 >= args.size()) throw UsageError{std::string(arg) + " wants a value"};
            return args[++i];
        };
        if (arg == "--demo") options.demo = true;
        else if (arg == "-o" || arg == "--output") options.output = std::filesystem::path(value());
        else if (arg == "--rate") options.format.rate = parseRate(value());
        else if (arg == "--bits") options.format.sample = parseBits(value());
        else if (arg == "--mono") options.format.channels = 1;
        else if (arg == "--format") format = value();
        else if (arg == "--bitrate") options.bitrate = parseRate(value(), 32, 320, "--bitrate");
        else if (arg == "--soundfont") options.soundFont = std::filesystem::path(value());
        else if (!arg.starts_with("-") && options.midi.empty()) options.midi = std::filesystem::path(arg);
        else throw UsageError{"unknown option '" + std::string(arg) + "'"};
    }
    if (!options.demo && options.midi.empty()) throw UsageError{"nothing to render: give --demo or a MIDI file"};
    if (options.demo && !options.midi.empty()) throw UsageError{"render takes --demo or a MIDI file, not both"};
    if (!options.midi.empty() && options.soundFont.empty() && !projectcli::isProjectFile(options.midi)) throw UsageError{"a MIDI file plays through --soundfont FONT.sf2"};
    if (options.output.empty()) throw UsageError{"no output file: give -o FILE.wav"};
    formatFromName(options, format.empty() ? options.output.string() : "." + std::string(format));
    if (!format.empty() && format != "wav" && format != "aiff" && format != "mp3")
        throw UsageError{"--format must be wav, aiff or mp3, not '" + std::string(format) + "'"};
    // AIFF holds 32-bit integers where WAV holds floats.
    if (options.format.type == files::FileType::aiff && options.format.sample == files::SampleFormat::float32)
        options.format.sample = files::SampleFormat::int32;
    return options;
}

// Draws a bar on standard error when it is a terminal; stays quiet when it is a file or a pipe.
class ProgressBar {
public:
    ProgressBar() : shown_(platform::isTerminal(2)) {}
    bool operator()(double done) {
        if (!shown_) return true;
        constexpr int width = 40;
        const int filled = static_cast<int>(done * width);
        std::fprintf(stderr, "\rrendering [%s%s] %3d%%", std::string(static_cast<size_t>(filled), '#').c_str(),
                     std::string(static_cast<size_t>(width - filled), '.').c_str(), static_cast<int>(done * 100.0));
        std::fflush(stderr);
        return true;
    }
    void finish() const {
        if (shown_) std::fputc('\n', stderr);
    }

private:
    bool shown_;
};

// Writes the song; the exit status says whether its input was whole (`damage` lists what it lost).
template <class Song>
int renderSong(Song& song, const RenderOptions& options, const files::DamageReport& damage = {}) {
    // MP3 renders to a WAV beside the target first, which the encoder then turns into the MP3.
    std::filesystem::path wavPath = options.output;
    if (options.mp3) wavPath += ".render.wav";
    files::AudioWriter writer(wavPath, options.format);
    ProgressBar bar;
    const auto started = std::chrono::steady_clock::now();
    const files::RenderResult result =
        files::renderOffline(song.engine, {0, song.lengthTicks()}, writer, [&bar](double done) { return bar(done); });
    writer.commit();
    if (options.mp3) files::encodeMp3(wavPath, options.output, options.bitrate);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    bar.finish();
    const double audio = static_cast<double>(result.frames) / options.format.rate;
    std::printf("wrote %s: %.2f s of audio, %d Hz, %d channel(s), %d bit%s, peak %.3f, in %.2f s (%.0fx real time)\n",
                options.output.string().c_str(), audio, options.format.rate, options.format.channels,
                files::bitsOf(options.format.sample),
                options.mp3 ? " into MP3" : options.format.sample == files::SampleFormat::float32 ? " float" : "",
                static_cast<double>(result.peak), seconds, seconds > 0.0 ? audio / seconds : 0.0);
    std::fflush(stdout);
    return projectcli::tellDamage(options.midi.string(), damage);
}

int render(const RenderOptions& options) {
    if (options.demo) {
        demo::DemoSong song(options.format.rate);
        return renderSong(song, options);
    }
    if (projectcli::isProjectFile(options.midi)) {
        projectcli::ProjectSong song(options.midi, options.format.rate);
        return renderSong(song, options, song.damage());
    }
    files::SoundFontBank bank;
    if (!files::readSoundFont(bank, options.soundFont.c_str()))
        throw std::runtime_error(options.soundFont.string() + ": " + bank.error);
    files::GmSong song(options.format.rate, options.midi.c_str(), bank);
    return renderSong(song, options, song.damage());
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string_view> args(argv + 1, argv + argc);
    try {
        if (args.empty() || args[0] == "--help" || args[0] == "-h") {
            std::fputs(usage, args.empty() ? stderr : stdout);
            return args.empty() ? exitUsage : EXIT_SUCCESS;
        }
        if (args[0] == "play") return play::run({args.begin() + 1, args.end()});
        if (args[0] == "info") return info::run({args.begin() + 1, args.end()});
        if (args[0] == "import") return projectcli::runImport({args.begin() + 1, args.end()});
        if (args[0] != "render") throw UsageError{"unknown command '" + std::string(args[0]) + "'"};
        return render(parseRender({args.begin() + 1, args.end()}));
    } catch (const UsageError& error) {
        std::fprintf(stderr, "vantrell-cli: %s\n%s", error.message.c_str(), usage);
        return exitUsage;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "\nvantrell-cli: render failed: %s\n", error.what());
        return exitFailure;
    }
}
